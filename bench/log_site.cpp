// A log site that the masks of both sinks suppress. The time includes the loop.
#include <benchmark/benchmark.h>

#include "pelmar_log_site.h"

namespace {

void close_both_sinks() {
  pelmar_hal_get_logcat_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_print();
}

uint64_t g_evaluated;

[[gnu::noinline]] int evaluate() {
  return static_cast<int>(++g_evaluated);
}

void suppressed_log_site(benchmark::State& state) {
  close_both_sinks();
  g_evaluated = 0;
  for (auto _ : state) {
    PELMAR_LOG_DEBUG("value %d", evaluate());
    benchmark::ClobberMemory();
  }
  state.counters["arguments_evaluated"] = static_cast<double>(g_evaluated);
}
BENCHMARK(suppressed_log_site);

}  // namespace
