#!/usr/bin/env bash
# Builds the benchmarks (Release, in build/bench), runs them and prints one table: each figure, the figure beside it, the
# goal and whether it was met. Every row compares figures of the same run, whose rounds alternate.
#
# If the user may do so, the benchmarks with several processes run at real-time priority, so that other processes do not
# change the figures. PELMAR_BENCH_PRIORITY=normal keeps the normal priority.
# The rows of libqmi-glib need the packages libqmi-glib-dev and libmbim-glib-dev, that of QRTR needs qemu-system-x86.
# usage: bench/run.sh [REPETITIONS]      default 15
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/packages.sh
repetitions=${1:-15}
build=build/bench

need_packages $PACKAGES_BUILD libbenchmark-dev python3
configure "$build" -DCMAKE_BUILD_TYPE=Release -DPELMAR_BENCH=ON -DPELMAR_TESTS=OFF
programs=(bench_codec bench_library bench_log_site bench_end_to_end bench_transports bench_client)
cmake --build "$build" --target "${programs[@]}" >&2

priority=() note="normal priority"
if [ "${PELMAR_BENCH_PRIORITY:-}" != normal ] && chrt -f 10 true 2>/dev/null; then
  priority=(chrt -f 10) note="real-time priority for programs with several processes"
fi

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
for program in "${programs[@]}"; do
  echo "running $program ..." >&2
  prefix=() arguments=() rounds=$repetitions seconds=0.1
  [ "$program" != bench_transports ] || arguments=(device)
  [ "$program" != bench_client ] || rounds=1  # of long runs
  if [ "$program" = bench_end_to_end ] || [ "$program" = bench_transports ]; then  # many short rounds
    prefix=("${priority[@]}") rounds=$((repetitions * 4)) seconds=0.025
  fi
  timeout 900 "${prefix[@]}" "$build/bin/$program" "${arguments[@]}" --benchmark_repetitions="$rounds" \
    --benchmark_enable_random_interleaving=true --benchmark_min_time="$seconds" \
    --benchmark_out="$results/$program.json" --benchmark_out_format=json >"$results/log" 2>&1 ||
    { cat "$results/log" >&2; exit 1; }
done
if command -v qemu-system-x86_64 >/dev/null; then
  echo "running bench_transports over QRTR in a virtual machine ..." >&2
  scripts/qrtr_vm.sh -t 300 bench/qrtr.sh "$build"/bin/{bench_transports,modem_sim} >"$results/log" ||
    { cat "$results/log" >&2; exit 1; }
  tr -d '\r' <"$results/log" | sed -n '/^=== results/,/^=== end/{/^===/!p}' >"$results/qrtr.json"
fi
python3 bench/report.py "$results" "$note"
