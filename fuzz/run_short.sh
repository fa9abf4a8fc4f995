#!/usr/bin/env bash
# Runs every fuzz target for a bounded time, from its made seeds. Fails on the first finding, whose input it keeps in
# BUILD_DIRECTORY/fuzz-findings.
# usage: fuzz/run_short.sh [BUILD_DIRECTORY] SECONDS      without a build directory it builds in build/fuzz
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { echo "usage: fuzz/run_short.sh [BUILD_DIRECTORY] SECONDS" >&2; exit 2; }
case $# in
  1) build=build/fuzz seconds=$1 ;;
  2) build=$1 seconds=$2 ;;
  *) usage ;;
esac
[[ $seconds =~ ^[1-9][0-9]*$ ]] || usage

if [ $# -eq 1 ]; then
  source scripts/packages.sh
  configure "$build" --preset address -DPELMAR_TESTS=OFF
  cmake --build "$build" --target fuzz
fi

export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
findings=$build/fuzz-findings
mkdir -p "$findings"
"$build/bin/fuzz_seeds" "$scratch/seeds"
mkdir "$scratch/seeds/files"
for scenario in docs/*.json; do
  { printf '\0'; cat "$scenario"; } >"$scratch/seeds/files/$(basename "$scenario")"
done

ran=0
for program in "$build"/bin/fuzz_*; do
  target=${program##*/fuzz_}
  [ "$target" != seeds ] && [ -e "fuzz/$target.cpp" ] || continue  # a target that was removed may still be built
  mkdir -p "$scratch/found/$target" "$scratch/seeds/$target"
  if ! timeout $((seconds + 120)) "$program" -max_total_time="$seconds" -max_len=12288 -timeout=20 -print_final_stats=1 \
    -artifact_prefix="$findings/$target-" "$scratch/found/$target" "$scratch/seeds/$target" >"$scratch/log" 2>&1; then
    tail -n 60 "$scratch/log"
    echo "fuzz: $target: FINDING; its input is in $findings; run it again with: $program INPUT"
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$scratch/log")
  coverage=$(grep -o 'cov: [0-9]*' "$scratch/log" | tail -n 1)
  printf 'fuzz: %-16s %3d s, %9d inputs, %3d seeds, %s: no finding\n' "$target" "$seconds" "$runs" \
    "$(find "$scratch/seeds/$target" -type f | wc -l)" "$coverage"
  ran=$((ran + 1))
done
[ "$ran" -gt 0 ] || { echo "fuzz: no target is built in $build" >&2; exit 1; }
