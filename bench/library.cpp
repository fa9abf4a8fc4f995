// The library's own share of a command: modem_api_read_nv() over a platform that answers at once, both logs closed.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "allocation_count.h"
#include "instant_platform.h"
#include "modem_api.h"
#include "pelmar_log.h"
#include "vs_messages.h"

namespace pelmar::bench {
namespace {

constexpr uint32_t kItemBytes = 128;

int32_t g_client;

void read_nv_instant_platform(benchmark::State& state) {
  vs::ReadResponse response{};
  response.data_len = kItemBytes;
  std::memset(response.data, 0x5A, kItemBytes);
  instant_platform::set_response(&response, sizeof response);
  uint8_t data[MODEM_API_MAX_ITEM_BYTES] = {};
  uint64_t failures = 0;
  const auto read = [&] {
    uint32_t length = sizeof data;
    failures += modem_api_read_nv(g_client, 10, 0, 0, data, &length) != MODEM_API_SUCCESS || length != kItemBytes;
    benchmark::DoNotOptimize(&data);
  };
  const uint64_t before = allocations().taken;
  for (auto _ : state) read();
  state.counters["allocations"] = static_cast<double>(allocations().taken - before);
  if (failures != 0 || data[kItemBytes - 1] != 0x5A) state.SkipWithError("the item was not read");
}
BENCHMARK(read_nv_instant_platform);

bool open_client() {
  if (modem_api_init() != MODEM_API_SUCCESS ||
      modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &g_client) != MODEM_API_SUCCESS) {
    return false;
  }
  pelmar_hal_close_print();
  return true;
}

}  // namespace
}  // namespace pelmar::bench

// Runs under a name that the library serves: the process starts itself again as "mtb".
int main(int argc, char** argv) {
  char name[] = "/bench/mtb";
  if (std::strcmp(argv[0], name) != 0) {
    argv[0] = name;
    execv("/proc/self/exe", argv);
    return 1;
  }
  // The library's first lines go to standard output before its mask is closed; the benchmark's own are wanted there.
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_shell_print();
  if (!pelmar::bench::open_client()) {
    std::fprintf(stderr, "bench_library: the library does not start\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
