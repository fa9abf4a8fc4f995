// The library's own part of a command, over a platform that returns at once, with both logs closed: reads an NV item,
// and a statistics value with and without its decoding.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "allocation_count.h"
#include "instant_platform.h"
#include "modem_api.h"
#include "modem_api_stats.h"
#include "modem_hydra.h"
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
  return modem_api_init() == MODEM_API_SUCCESS &&
         modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &g_client) == MODEM_API_SUCCESS;
}

// --- statistics ---

constexpr uint32_t kLteCell = 0x52;
constexpr uint32_t kLteCellBytes = 75;
constexpr uint8_t kLastByte = 0x5A;

// Makes the platform respond with one value, that of the serving cell.
void set_lte_cell_response() {
  static vs::GetStatsParameterResponse response;  // the platform keeps the address
  response = {};
  response.records_valid = 1;
  response.record_count = 1;
  response.records[0].id = kLteCell;
  response.records[0].data_len = kLteCellBytes;
  response.records[0].data[kLteCellBytes - 1] = kLastByte;
  instant_platform::set_response(&response, sizeof response);
}

// Measures `read`, which returns whether it has read the value in the platform's response.
template <typename Reading>
void count_readings(benchmark::State& state, Reading read) {
  set_lte_cell_response();
  uint64_t failures = 0;
  const uint64_t before = allocations().taken;
  for (auto _ : state) failures += read() ? 0 : 1;
  state.counters["allocations"] = static_cast<double>(allocations().taken - before);
  if (failures != 0) state.SkipWithError("the value was not read");
}

void get_stats_parameter_instant_platform(benchmark::State& state) {
  static stats_para_data data;
  count_readings(state, [] {
    data.para_num = 1;
    data.entries[0].id = kLteCell;
    data.entries[0].value_len = 0;
    const modem_api_result result = modem_api_get_stats_parameter(g_client, 0, 0, &data);
    benchmark::DoNotOptimize(&data);
    return result == MODEM_API_SUCCESS && data.entries[0].value[kLteCellBytes - 1] == kLastByte;
  });
}
BENCHMARK(get_stats_parameter_instant_platform);

// Hydra's client replaces the other one.
void decode_lte_cell_instant_platform(benchmark::State& state) {
  modem_api_free_client(g_client);
  if (modem_hydra_api_init() == 0) return state.SkipWithError("hydra does not open");
  modem_hydra_lte_srv_meas_info record{};
  count_readings(state, [&record] {
    const uint8_t is_read = modem_hydra_lte_srv_meas_info_get_for_pcc(0, &record);
    benchmark::DoNotOptimize(&record);
    return is_read != 0 && record.snr[3] == kLastByte << 24;
  });
  modem_hydra_api_deinit();
  if (!open_client()) state.SkipWithError("the library does not start again");
}
BENCHMARK(decode_lte_cell_instant_platform);

}  // namespace
}  // namespace pelmar::bench

// The library serves processes of certain names only, so the process executes itself again as "mtb".
int main(int argc, char** argv) {
  char name[] = "/bench/mtb";
  if (std::strcmp(argv[0], name) != 0) {
    argv[0] = name;
    execv("/proc/self/exe", argv);
    return 1;
  }
  // The library prints its first lines before its mask is closed; only the benchmark's lines may go to standard output.
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_shell_print();
  if (!pelmar::bench::open_client()) {
    std::fprintf(stderr, "bench_library: the library does not start\n");
    return 1;
  }
  pelmar_hal_close_print();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
