# Runs in the virtual machine of scripts/qrtr_vm.sh: prints the results of bench_transports over QRTR as JSON, between
# two lines. The processes share one processor, because a wake-up of an idle virtual processor takes longer than the
# exchange.
taskset 1 bench_transports qrtr --benchmark_repetitions=20 --benchmark_enable_random_interleaving=true \
  --benchmark_min_time=0.05 --benchmark_out=/tmp/results.json --benchmark_out_format=json >/tmp/log 2>&1 || {
  cat /tmp/log
  exit 1
}
echo '=== results'
cat /tmp/results.json
echo '=== end'
