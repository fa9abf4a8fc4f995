// The processor time of the client's live view, in user and system mode, during a watch of ten readings a second on a
// pseudo-terminal.
#include <benchmark/benchmark.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "peers.h"

namespace pelmar::bench {
namespace {

constexpr const char* kSeconds = "20";
constexpr const char* kReadingsASecond = "10";
constexpr winsize kTerminalSize = {24, 80, 0, 0};

using Clock = std::chrono::steady_clock;

double seconds_of(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

[[noreturn]] void run_client(const std::string& modem) {
  setenv("PELMAR_MODEM", modem.c_str(), 1);
  setenv("XDG_STATE_HOME", (modem + "-state").c_str(), 1);
  setenv("TERM", "xterm", 1);
  execl(PELMAR_CLIENT, "modem_api_test", "signal", "--watch", "--rate", kReadingsASecond, "--for", kSeconds, nullptr);
  std::perror(PELMAR_CLIENT);
  _exit(127);
}

// Reads what the client draws until it ends. Returns the number of bytes.
size_t drain(int terminal) {
  char bytes[4096];
  size_t total = 0;
  for (ssize_t count = read(terminal, bytes, sizeof bytes); count > 0; count = read(terminal, bytes, sizeof bytes)) {
    total += static_cast<size_t>(count);
  }
  close(terminal);
  return total;
}

void signal_watch(benchmark::State& state) {
  const SimulatedModem modem;
  for (auto _ : state) {
    const auto start = Clock::now();
    int terminal = -1;
    const pid_t client = forkpty(&terminal, nullptr, nullptr, &kTerminalSize);
    if (client < 0) return state.SkipWithError("there is no terminal");
    if (client == 0) run_client(modem.socket());
    const size_t drawn = drain(terminal);
    int status = 0;
    rusage usage{};
    if (wait4(client, &status, 0, &usage) != client || status != 0) return state.SkipWithError("the client failed");
    const double passed = std::chrono::duration<double>(Clock::now() - start).count();
    const double busy = seconds_of(usage.ru_utime) + seconds_of(usage.ru_stime);
    state.counters["core_percent"] = 100 * busy / passed;
    state.counters["drawn_bytes"] = static_cast<double>(drawn);
  }
}
BENCHMARK(signal_watch)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace pelmar::bench

BENCHMARK_MAIN();
