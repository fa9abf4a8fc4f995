// A client process of a chaos run: its workers, and what the library may hold of it while nothing is open.
#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>
#include <vector>

#include "chaos/chaos.h"
#include "hydra_mem.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr int kTendIntervalMs = 20;
constexpr std::chrono::microseconds kPause{500};  // between two operations of a worker
constexpr int kMostProblems = 20;
constexpr int64_t kAbandonedBlocksOfKb = 2;
constexpr int64_t kRoundsOfWarmUp = 5;
constexpr int64_t kGrowthKb = 4096;
constexpr char kThreads[] = "/proc/self/task";
constexpr char kOpenFiles[] = "/proc/self/fd";

std::atomic<uint64_t> calls;
std::atomic<uint64_t> successes;

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

// Runs the party's workers until there is a line to read.
void run_storm(Party& party) {
  std::atomic<bool> is_storm{true};
  std::atomic<uint32_t> working{kWorkers};
  std::vector<std::thread> workers;
  for (uint32_t i = 0; i < kWorkers; ++i) {
    workers.emplace_back([&, i] {
      for (; is_storm; std::this_thread::sleep_for(kPause)) party.run_operation(i);
      --working;
    });
  }
  pollfd input{STDIN_FILENO, POLLIN, 0};
  while (poll(&input, 1, kTendIntervalMs) == 0) party.tend();
  is_storm = false;
  for (; working != 0; std::this_thread::sleep_for(kPause)) party.tend();
  for (std::thread& worker : workers) worker.join();
}

template <const char* kDirectory>
int64_t count_entries() {
  return std::distance(std::filesystem::directory_iterator(kDirectory), std::filesystem::directory_iterator());
}

// What a process may grow by after its first rounds, besides the blocks that it lost.
void expect_flat_memory() {
  static int64_t rounds = 0;
  static int64_t warm_kb = 0;
  int64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;  // the second number: resident
  const int64_t kb = pages * sysconf(_SC_PAGESIZE) / 1024 - abandoned_blocks / kAbandonedBlocksOfKb;
  const bool keeps_freed_memory = dlsym(RTLD_DEFAULT, "__asan_init") || dlsym(RTLD_DEFAULT, "__tsan_init");
  if (++rounds <= kRoundsOfWarmUp) warm_kb = std::max(warm_kb, kb);
  if (!keeps_freed_memory && kb > warm_kb + kGrowthKb)
    problem(std::to_string(kb) + " kB, at first " + std::to_string(warm_kb));
}

// What the library may hold while nothing is open. It may still be giving something back.
void expect_at_rest(const char* what, int64_t expected, int64_t (*count)()) {
  const auto limit = Clock::now() + kPatience;
  while (count() != expected) {
    if (Clock::now() > limit) return problem(std::to_string(count()) + what + std::to_string(expected) + " at rest");
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

int64_t count_traced_blocks() {
  static std::string text(8 << 20, '\0');
  hydra_mem_trace_dump(text.data(), static_cast<int32_t>(text.size()));
  int64_t count = 0;
  for (size_t at = text.find("<Trace"); at != text.npos; at = text.find("<Trace", at + 1)) ++count;
  return count;
}

}  // namespace

void problem(const std::string& text) {
  static std::atomic<int> left{kMostProblems};
  if (left-- > 0) say("problem: " + text);
}

modem_api_result noted(const char* name, const std::function<modem_api_result()>& call, Clock::duration limit) {
  const auto start = Clock::now();
  const modem_api_result result = call();
  const std::chrono::duration<double> took = Clock::now() - start;
  ++calls;
  if (result == MODEM_API_SUCCESS) ++successes;
  const bool is_listed = result >= MODEM_API_SUCCESS && result <= MODEM_API_ERR_ALREADY_INITIALIZED;
  if (!is_listed || result == MODEM_API_RESP_END) problem(std::string(name) + " returned " + std::to_string(result));
  if (took > limit) problem(std::string(name) + " took " + std::to_string(took.count()) + " s");
  return result;
}

int run_client(char** arguments) {
  const uint64_t seed = std::strtoull(arguments[0], nullptr, 10);
  const auto process = static_cast<uint32_t>(std::atoi(arguments[1]));
  const auto party = process < kClientsProcesses ? make_clients_party(seed, process) : make_hydra_party(seed, process);
  std::thread([] {}).join();  // with the first thread the thread sanitizer starts one of its own
  const int64_t threads = count_entries<kThreads>();
  const int64_t open_files = count_entries<kOpenFiles>();

  std::setvbuf(stdin, nullptr, _IONBF, 0);  // poll() sees every line that was not read
  uint32_t first_event = 0;
  uint32_t last_event = 0;
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "storm") {
      party->open();
      run_storm(*party);
    } else if (line == "pause") {
      party->settle();
      say("paused");
    } else if (std::sscanf(line.c_str(), "verify %u %u", &first_event, &last_event) == 2) {
      party->verify(first_event, last_event);
      party->close();
      expect_at_rest(" threads instead of ", threads, count_entries<kThreads>);
      expect_at_rest(" open files instead of ", open_files, count_entries<kOpenFiles>);
      expect_at_rest(" traced blocks instead of ", abandoned_blocks, count_traced_blocks);
      expect_flat_memory();
      if (successes == 0) problem("no call succeeded");
      say("verified; " + std::to_string(successes.exchange(0)) + " of " + std::to_string(calls.exchange(0)) +
          " calls succeeded");
    }
  }
  return 0;
}

}  // namespace pelmar::system_test::chaos
