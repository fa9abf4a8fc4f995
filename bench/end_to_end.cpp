// Commands and events between the whole client side and modem_sim in another process, compared with plain sockets that
// carry the same bytes between two processes.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "allocation_count.h"
#include "modem_api.h"
#include "peers.h"
#include "pelmar_log.h"

namespace pelmar::bench {
namespace {

constexpr uint32_t kItem = 10;
constexpr uint32_t kItemBytes = 128;

// QMUX header, message header, TLVs: item, qualifier and index; result and the item's data with its count.
constexpr size_t kReadNvRequestBytes = 6 + 7 + (3 + 4) + (3 + 1) + (3 + 2);
constexpr size_t kReadNvResponseBytes = 6 + 7 + (3 + 4) + (3 + 2 + kItemBytes);
constexpr size_t kLargestIndicationBytes = 6 + 7 + 10672;

constexpr uint32_t kStreamEvents = 2000;
constexpr uint32_t kStreamIntervalUs = 50;  // 20,000 a second

// --- events ---

// Counts the events of a stream, which are numbered from 0.
class EventCounter {
 public:
  void expect(uint32_t events) {
    const std::lock_guard lock(mutex_);
    seen_ = 0;
    lost_ = 0;
    expected_ = events;
  }

  void add(const uint8_t* payload) {
    const std::lock_guard lock(mutex_);
    modem_api_vs_report_a_event event;
    std::memcpy(&event.value, payload, sizeof event.value);
    if (event.value != seen_) ++lost_;
    if (++seen_ == expected_) all_seen_.notify_one();
  }

  uint32_t seen() const {
    const std::lock_guard lock(mutex_);
    return seen_;
  }

  // False if events were lost.
  bool wait() {
    std::unique_lock lock(mutex_);
    return all_seen_.wait_for(lock, std::chrono::seconds(20), [this] { return seen_ >= expected_; }) && lost_ == 0;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable all_seen_;
  uint32_t expected_ = 0;
  uint32_t seen_ = 0;
  uint32_t lost_ = 0;
};

EventCounter g_events;

void on_event(uint32_t event, const uint8_t* payload, uint32_t) {
  if (event == MODEM_API_EVENT_VS_REPORT_A) g_events.add(payload);
}

// --- the peers ---

// Sends the bytes of a response for each request.
void serve_ping_pong(const LocalStream& stream) {
  uint8_t request[kReadNvRequestBytes];
  const uint8_t response[kReadNvResponseBytes] = {};
  while (stream.receive_all(request, sizeof request) && stream.send_all(response, sizeof response)) continue;
}

// Reads a count and sends the bytes of as many indications, again and again.
void serve_stream(const LocalStream& stream) {
  const std::vector<uint8_t> indication(kLargestIndicationBytes);
  uint32_t count;
  while (stream.receive_all(&count, sizeof count)) {
    for (uint32_t i = 0; i < count; ++i) stream.send_all(indication.data(), indication.size());
  }
}

bool succeeded(modem_api_result result, const char* what) {
  if (result != MODEM_API_SUCCESS) std::fprintf(stderr, "bench_end_to_end: %s: result %d\n", what, result);
  return result == MODEM_API_SUCCESS;
}

// Opens a client of the vendor-specific service, and writes the item.
bool open_vs(const SimulatedModem& modem, int32_t& vs) {
  setenv("PELMAR_MODEM", modem.socket().c_str(), 1);
  setenv("XDG_STATE_HOME", modem.socket().append("-state").c_str(), 1);
  pelmar_hal_get_logcat_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_print();
  const uint8_t data[kItemBytes] = {1, 2, 3};
  return succeeded(modem_api_init(), "init") &&
         succeeded(modem_api_init_client(MODEM_API_CLIENT_VS, on_event, nullptr, &vs), "vendor-specific client") &&
         succeeded(modem_api_write_nv(vs, kItem, 0, 0, data, kItemBytes), "write");
}

bool read_item(int32_t vs) {
  uint8_t data[MODEM_API_MAX_ITEM_BYTES];
  uint32_t length = sizeof data;
  return modem_api_read_nv(vs, kItem, 0, 0, data, &length) == MODEM_API_SUCCESS && length == kItemBytes;
}

// Receives a count and reads the item so many times; sends the time in seconds. A process has one trace, so the
// processes with and without it are children.
void serve_reads(const SimulatedModem& modem, const LocalStream& stream, bool is_traced) {
  if (is_traced) setenv("PELMAR_TRACE", modem.socket().append("-trace").c_str(), 1);
  int32_t vs = -1;
  if (!open_vs(modem, vs)) return;
  uint32_t count;
  while (stream.receive_all(&count, sizeof count)) {
    const auto begin = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < count; ++i) {
      if (!read_item(vs)) return;
    }
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    stream.send_all(&time, sizeof time);
  }
}

struct Setup {
  Child ping_pong{serve_ping_pong};
  Child stream{serve_stream};
  SimulatedModem modem;
  Child untraced{[this](const LocalStream& requests) { serve_reads(modem, requests, false); }};
  Child traced{[this](const LocalStream& requests) { serve_reads(modem, requests, true); }};
  int32_t vs_client = -1;
  int32_t nas_client = -1;
};

Setup* g_setup;

// --- round trips ---

void read_nv_end_to_end(benchmark::State& state) {
  for (auto _ : state) {
    if (!read_item(g_setup->vs_client)) {
      state.SkipWithError("the item was not read");
      break;
    }
  }
}
BENCHMARK(read_nv_end_to_end)->UseRealTime();

void read_in_child(benchmark::State& state, const LocalStream& child) {
  constexpr uint32_t kReads = 100;
  std::chrono::duration<double> time{};
  while (state.KeepRunningBatch(kReads)) {
    if (!child.send_all(&kReads, sizeof kReads) || !child.receive_all(&time, sizeof time)) {
      state.SkipWithError("the item was not read");
      break;
    }
    state.SetIterationTime(time.count());
  }
}

void read_nv_untraced(benchmark::State& state) {
  read_in_child(state, g_setup->untraced.stream());
}
BENCHMARK(read_nv_untraced)->UseManualTime();

void read_nv_traced(benchmark::State& state) {
  read_in_child(state, g_setup->traced.stream());
}
BENCHMARK(read_nv_traced)->UseManualTime();

void bare_ping_pong(benchmark::State& state) {
  const LocalStream& stream = g_setup->ping_pong.stream();
  const uint8_t request[kReadNvRequestBytes] = {};
  uint8_t response[kReadNvResponseBytes];
  for (auto _ : state) {
    if (!stream.send_all(request, sizeof request) || !stream.receive_all(response, sizeof response)) {
      state.SkipWithError("the peer is gone");
      break;
    }
  }
}
BENCHMARK(bare_ping_pong)->UseRealTime();

// --- the stream of the largest event ---

void event_stream(benchmark::State& state) {
  const Allocations before = allocations();
  for (auto _ : state) {
    g_events.expect(kStreamEvents);
    g_setup->modem.command("stream " + std::to_string(kStreamEvents));
    if (!g_events.wait()) state.SkipWithError("events were lost");
  }
  const Allocations after = allocations();
  state.SetItemsProcessed(state.iterations() * kStreamEvents);
  state.counters["blocks_left"] =
      static_cast<double>(after.taken - before.taken) - static_cast<double>(after.given_back - before.given_back);
}
BENCHMARK(event_stream)->UseRealTime()->Unit(benchmark::kMillisecond);

void bare_stream(benchmark::State& state) {
  const LocalStream& stream = g_setup->stream.stream();
  std::vector<uint8_t> buffer(65536);
  const uint32_t count = kStreamEvents;
  for (auto _ : state) {
    stream.send_all(&count, sizeof count);
    for (size_t left = count * kLargestIndicationBytes; left > 0;) {
      const size_t received = stream.receive(buffer.data(), std::min(left, buffer.size()));
      if (received == 0) std::exit(1);
      left -= received;
    }
  }
  state.SetItemsProcessed(state.iterations() * kStreamEvents);
}
BENCHMARK(bare_stream)->UseRealTime()->Unit(benchmark::kMillisecond);

// --- a second connection, without and during the stream ---

void get_drx(benchmark::State& state) {
  for (auto _ : state) {
    uint8_t valid = 0;
    uint32_t drx = 0;
    modem_api_get_drx(g_setup->nas_client, &valid, &drx);
    if (valid == 0) state.SkipWithError("no value came");
  }
}

void second_connection_idle(benchmark::State& state) {
  get_drx(state);
}
BENCHMARK(second_connection_idle)->UseRealTime();

void second_connection_beside_stream(benchmark::State& state) {
  g_events.expect(UINT32_MAX);
  g_setup->modem.command("stream 4294967295 every " + std::to_string(kStreamIntervalUs));
  const uint32_t before = g_events.seen();
  get_drx(state);
  state.counters["events_per_second"] = benchmark::Counter(g_events.seen() - before, benchmark::Counter::kIsRate);
  g_setup->modem.command("stream stop");
}
BENCHMARK(second_connection_beside_stream)->UseRealTime();

// --- start ---

bool open_clients() {
  int32_t& vs = g_setup->vs_client;
  return open_vs(g_setup->modem, vs) &&
         succeeded(modem_api_init_client(MODEM_API_CLIENT_NAS_0, nullptr, nullptr, &g_setup->nas_client), "NAS") &&
         succeeded(modem_api_add_modem_event(vs, MODEM_API_EVENT_VS_REPORT_A), "event") &&
         succeeded(modem_api_set_vs_event_report(vs), "event report");
}

}  // namespace
}  // namespace pelmar::bench

// The library serves processes of certain names only, so the process executes itself again as "mtb".
int main(int argc, char** argv) {
  using namespace pelmar::bench;
  char name[] = "/bench/mtb";
  if (std::strcmp(argv[0], name) != 0) {
    argv[0] = name;
    execv("/proc/self/exe", argv);
    return 1;
  }
  Setup setup;
  g_setup = &setup;
  if (!open_clients()) return 1;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  modem_api_free_client(setup.nas_client);
  modem_api_free_client(setup.vs_client);
  return 0;
}
