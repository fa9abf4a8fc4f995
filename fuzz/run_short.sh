#!/usr/bin/env bash
# Runs every fuzz target for SECONDS. Fails at the first finding and stores its input in BUILD_DIRECTORY/fuzz-findings.
# usage: fuzz/run_short.sh [BUILD_DIRECTORY] SECONDS      without a build directory it builds in build/fuzz
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -eq 1 ]; then
  source scripts/packages.sh
  configure build/fuzz --preset address -DPELMAR_TESTS=OFF
  cmake --build build/fuzz --target fuzz
  set -- build/fuzz "$1"
fi
[[ $# -eq 2 && $2 =~ ^[1-9][0-9]*$ ]] || { echo "usage: fuzz/run_short.sh [BUILD_DIRECTORY] SECONDS" >&2; exit 2; }
build=$1 seconds=$2

export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
findings=$build/fuzz-findings
mkdir -p "$findings" "$scratch/files"
for scenario in docs/*.json; do
  { printf '\0'; cat "$scenario"; } >"$scratch/files/$(basename "$scenario")"
done
{ # a capture's link and one message
  printf '\2\12\15\15\12\34\0\0\0\115\74\53\32\1\0\0\0\0\0\0\0\0\0\0\0\34\0\0\0'
  printf '\1\0\0\0\34\0\0\0\223\0\0\0\0\0\0\0\2\0\1\0a\0\0\0\34\0\0\0'
  printf '\6\0\0\0\50\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\7\0\0\0\7\0\0\0\1\6\0\0\3\1a\0\50\0\0\0'
} >"$scratch/files/capture"

# Inputs grow fast, except for the target `files`, whose scenarios are long texts.
run_target() {
  local target=$1 program=$build/bin/fuzz_$1 log=$scratch/$1.log growth=10
  [ "$target" != files ] || growth=100
  mkdir -p "$scratch/$target"
  if ! timeout $((seconds + 120)) "$program" -max_total_time="$seconds" -max_len=12288 -len_control=$growth \
    -timeout=20 -artifact_prefix="$findings/$target-" "$scratch/$target" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz: $target: FINDING; its input is in $findings; run it again with: $program INPUT"
    return 255  # xargs starts no other target
  fi
  printf 'fuzz: %-10s %3d s, %s: no finding\n' "$target" "$seconds" "$(grep -o 'cov: [0-9]*' "$log" | tail -n 1)"
}
export -f run_target
export build seconds scratch findings
printf '%s\n' client codec files library simulator | xargs -P "$(nproc)" -I {} bash -c 'run_target {}'
