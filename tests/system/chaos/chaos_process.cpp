// A client process of a chaos run: its workers, what the library may hold of it while nothing is open, and the party
// that reads hydra's statistics.
#include <dlfcn.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "chaos/chaos.h"
#include "hydra_mem.h"
#include "modem_hydra.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr int kTendIntervalMs = 20;
constexpr std::chrono::microseconds kPause{500};  // between two operations of a worker
constexpr int kMostProblems = 20;
constexpr int kFailuresOfALostHydra = 20;
constexpr int64_t kRoundsOfWarmUp = 5;
constexpr int64_t kGrowthKb = 4096;

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

int64_t count_entries(const char* directory) {
  return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
}

int64_t count_traced_blocks() {
  static std::string text(8 << 20, '\0');
  hydra_mem_trace_dump(text.data(), static_cast<int32_t>(text.size()));
  int64_t count = 0;
  for (size_t at = text.find("<Trace"); at != text.npos; at = text.find("<Trace", at + 1)) ++count;
  return count;
}

// What a process may grow by after its first rounds, besides the blocks that it lost.
void expect_flat_memory() {
  static int64_t rounds = 0;
  static int64_t warm_kb = 0;
  int64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;  // the second number: resident
  const int64_t kb = pages * sysconf(_SC_PAGESIZE) / 1024 - abandoned_blocks / 2;
  const bool keeps_freed_memory = dlsym(RTLD_DEFAULT, "__asan_init") || dlsym(RTLD_DEFAULT, "__tsan_init");
  if (++rounds <= kRoundsOfWarmUp) warm_kb = std::max(warm_kb, kb);
  if (!keeps_freed_memory && kb > warm_kb + kGrowthKb)
    problem(std::to_string(kb) + " kB, before " + std::to_string(warm_kb));
}

template <auto Get, typename Record>
uint8_t read_record(uint32_t sub, uint8_t& version) {
  Record record{};
  const uint8_t came = Get(sub, &record);
  version = static_cast<uint8_t>(record.version);
  return came;
}

struct Decoder {
  uint32_t id;
  // Reads a record; returns what the decoder returns, and the record's version.
  uint8_t (*read)(uint32_t sub, uint8_t& version);
};
constexpr Decoder kDecoders[] = {
    {0x52, read_record<modem_hydra_lte_srv_meas_info_get_for_pcc, modem_hydra_lte_srv_meas_info>},
    {0x87, read_record<modem_hydra_nr5g_srv_meas_info_get_for_pcc, modem_hydra_nr5g_srv_meas_info>},
    {0x64, read_record<modem_hydra_mcs_trm_asdiv_get, modem_hydra_mcs_trm_asdiv>},
};

// Decoders on all threads, hydra's commands on one. A hydra whose service went away reads nothing any more until it is
// opened again. While it is opened, nobody reads.
class HydraParty final : public Party {
 public:
  HydraParty(uint64_t seed, uint32_t process) {
    for (uint32_t i = 0; i < kWorkers; ++i) random_.emplace_back(seed, process * kWorkers + i);
  }

  void open() override {
    const std::unique_lock nobody_reads(reading_);
    read("hydra open", modem_hydra_api_init, kWorkers * kCallLimit);
    failures_ = 0;
  }

  void tend() override {
    if (failures_ >= kFailuresOfALostHydra) open();
  }

  void run_operation(uint32_t worker) override {
    const std::shared_lock reading(reading_);
    Random& random = random_[worker];
    if (worker == 0 && random.between(1, 8) == 1) return switch_reporting(random);  // only one thread may do so
    const Decoder& decoder = random.element(kDecoders);
    const uint32_t sub = random.between(0, 1);
    uint8_t version = 0;
    const bool came = read("decode", [&] { return decoder.read(sub, version); });
    failures_ = came ? 0 : failures_ + 1;
    if (came && !is_stamped_right(version, sub, decoder.id)) {
      problem("decoder " + std::to_string(decoder.id) + " read version " + std::to_string(version));
    }
  }

  bool works() override {
    uint8_t version = 0;
    if (kDecoders[0].read(0, version) != 0) return true;
    open();
    return false;
  }

  void verify(uint32_t, uint32_t) override {
    for (uint32_t at = 0; at < 2 * std::size(kDecoders); ++at) {
      const Decoder& decoder = kDecoders[at / 2];
      uint8_t version = 0;
      decoder.read(at % 2, version);
      if (version == stamp_of(at % 2, decoder.id)) continue;
      problem("decoder " + std::to_string(decoder.id) + " ends with version " + std::to_string(version));
    }
  }

  void close() override {
    modem_hydra_stats_id_free();
    modem_hydra_api_deinit();
  }

 private:
  // Readings take turns, and the one at work may be opening hydra.
  static bool read(const char* name, const std::function<uint8_t()>& call,
                   Clock::duration limit = kWorkers * kCallLimit) {
    const auto as_result = [&] { return call() != 0 ? MODEM_API_SUCCESS : MODEM_API_ERR_GENERIC; };
    return noted(name, as_result, limit) == MODEM_API_SUCCESS;
  }

  static void switch_reporting(Random& random) {
    modem_api_stats_registration record{};
    record.id = random.element(kStatistics).id;
    if (random.between(0, 1) == 1) modem_hydra_stats_id_free();
    modem_hydra_stats_id_alloc();
    noted("register", [&] { return modem_hydra_register_modem_stats_data(0, 0, 0, 0, &record, 1); });
  }

  std::shared_mutex reading_;
  std::atomic<int> failures_{0};  // readings in a row
  std::vector<Random> random_;    // of each worker
};

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

void expect_soon(const char* what, const std::function<bool()>& condition) {
  for (const auto limit = Clock::now() + kPatience; !condition(); std::this_thread::sleep_for(20 * kPause)) {
    if (Clock::now() > limit) return problem(what);
  }
}

int run_client(char** arguments) {
  const uint64_t seed = std::strtoull(arguments[0], nullptr, 10);
  const auto process = static_cast<uint32_t>(std::atoi(arguments[1]));
  const auto party =
      process < kClientsProcesses ? make_clients_party(seed, process) : std::make_unique<HydraParty>(seed, process);
  std::thread([] {}).join();  // with the first thread the thread sanitizer starts one of its own
  const int64_t threads = count_entries("/proc/self/task");
  const int64_t open_files = count_entries("/proc/self/fd");

  std::setvbuf(stdin, nullptr, _IONBF, 0);  // poll() sees every line that was not read
  uint32_t first_event = 0;
  uint32_t last_event = 0;
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "storm") {
      party->open();
      run_storm(*party);
    } else if (line == "pause") {
      expect_soon("what was lost did not come back", [&] { return party->works(); });
      say("paused");
    } else if (std::sscanf(line.c_str(), "verify %u %u", &first_event, &last_event) == 2) {
      party->verify(first_event, last_event);
      party->close();
      expect_soon("more threads than at first", [&] { return count_entries("/proc/self/task") == threads; });
      expect_soon("more open files than at first", [&] { return count_entries("/proc/self/fd") == open_files; });
      expect_soon("traced blocks are left", [&] { return count_traced_blocks() == abandoned_blocks; });
      expect_flat_memory();
      if (successes == 0) problem("no call succeeded");
      say("verified; " + std::to_string(successes.exchange(0)) + " of " + std::to_string(calls.exchange(0)) +
          " calls succeeded");
    }
  }
  return 0;
}

}  // namespace pelmar::system_test::chaos
