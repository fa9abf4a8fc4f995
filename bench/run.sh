#!/usr/bin/env bash
# Builds the benchmarks (Release, in build/bench), runs them and prints one table: what was measured, beside what, the
# goal and whether it was met. Every row compares figures of the same run, whose rounds alternate.
# usage: bench/run.sh [REPETITIONS]      default 15; a machine that is busy with other things needs more
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh
repetitions=${1:-15}
build=build/bench

need_packages $PACKAGES_BUILD libbenchmark-dev python3
configure "$build" -DCMAKE_BUILD_TYPE=Release -DPELMAR_BENCH=ON -DPELMAR_TESTS=OFF
programs=(bench_codec bench_library bench_log_site bench_end_to_end)
cmake --build "$build" --target "${programs[@]}" >/dev/null

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
for program in "${programs[@]}"; do
  echo "running $program ..." >&2
  timeout 900 "$build/bin/$program" --benchmark_repetitions="$repetitions" --benchmark_enable_random_interleaving=true \
    --benchmark_min_time=0.1 --benchmark_out="$results/$program.json" --benchmark_out_format=json >"$results/log" 2>&1 ||
    { cat "$results/log" >&2; exit 1; }
done
python3 bench/report.py "$results"
