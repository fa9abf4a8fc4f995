#include "chaos/client_role.h"

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "chaos/journal.h"
#include "chaos/party.h"
#include "chaos/random.h"
#include "hydra_mem.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr uint32_t kMostPauseUs = 1000;  // between two operations of a worker
constexpr std::chrono::milliseconds kTendInterval{20};
constexpr std::chrono::seconds kSettlePatience{90};

// Threads that run the party's operations while they are told to.
class Workers {
 public:
  Workers(Party& party, uint64_t seed, uint32_t process) : party_(party) {
    for (uint32_t i = 0; i < kWorkers; ++i) {
      threads_.emplace_back([this, i, pauses = Random(~seed, process * kWorkers + i)] { run(i, pauses); });
    }
  }

  ~Workers() {
    set(State::kEnding);
    for (std::thread& thread : threads_) thread.join();
  }

  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  void start() { set(State::kRunning); }

  // Asks for a pause; true once no worker is in a call.
  bool pause(std::chrono::milliseconds wait) {
    set(State::kPausing);
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, wait, [&] { return busy_ == 0; });
  }

 private:
  enum class State { kPausing, kRunning, kEnding };

  void set(State state) {
    const std::lock_guard guard(lock_);
    state_ = state;
    changed_.notify_all();
  }

  void run(size_t worker, Random pauses) {
    std::unique_lock guard(lock_);
    for (;;) {
      changed_.wait(guard, [&] { return state_ != State::kPausing; });
      if (state_ == State::kEnding) return;
      ++busy_;
      guard.unlock();
      party_.run_operation(worker);
      std::this_thread::sleep_for(std::chrono::microseconds(pauses.between(0, kMostPauseUs)));
      guard.lock();
      if (--busy_ == 0) changed_.notify_all();
    }
  }

  Party& party_;
  std::mutex lock_;
  std::condition_variable changed_;
  State state_ = State::kPausing;
  int busy_ = 0;
  std::vector<std::thread> threads_;
};

// A number of this process from /proc.
int64_t status_number(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(name + ':', 0) == 0) return std::atoll(line.c_str() + name.size() + 1);
  }
  return -1;
}

size_t open_files() {
  return static_cast<size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator()));
}

// Waits for a number to come down to the expected one, which it may do a moment after the call that leads to it.
template <class Number>
bool settles(Number number, int64_t expected) {
  const auto limit = Clock::now() + kSettlePatience;
  while (number() != expected) {
    if (Clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::string traced_blocks() {
  static std::string text(8 << 20, '\0');
  hydra_mem_trace_dump(text.data(), static_cast<int32_t>(text.size()));
  return text.c_str();
}

int64_t count_traced_blocks() {
  const std::string text = traced_blocks();
  int64_t count = 0;
  for (size_t at = text.find("<Trace"); at != text.npos; at = text.find("<Trace", at + 1)) ++count;
  return count;
}

// What the library holds of this process while nothing is open.
struct AtRest {
  int64_t threads = status_number("Threads");
  size_t files = open_files();

  void expect_again(const Party& party) const {
    if (!settles([] { return status_number("Threads"); }, threads)) {
      journal().problem(std::to_string(status_number("Threads")) + " threads, at first " + std::to_string(threads));
    }
    if (!settles([] { return static_cast<int64_t>(open_files()); }, static_cast<int64_t>(files))) {
      journal().problem(std::to_string(open_files()) + " open files, at first " + std::to_string(files));
    }
    const auto abandoned = static_cast<int64_t>(party.abandoned_blocks());
    if (!settles(count_traced_blocks, abandoned)) {
      journal().problem("traced blocks beside " + std::to_string(abandoned) +
                        " of refused sends:" + traced_blocks().substr(0, 2000));
    }
  }
};

void say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

// Lines of standard input, read without holding up what is to be done meanwhile.
class Commands {
 public:
  Commands() : reader_([this] { read(); }) {}
  ~Commands() { reader_.join(); }
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  // The next one; "" where none came in time, "end" at the end of the input.
  std::string next(std::chrono::milliseconds wait) {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, wait, [&] { return !lines_.empty(); });
    if (lines_.empty()) return "";
    std::string line = lines_.front();
    lines_.erase(lines_.begin());
    return line;
  }

 private:
  void read() {
    std::string line;
    do {
      if (!std::getline(std::cin, line)) line = "end";
      const std::lock_guard guard(lock_);
      lines_.push_back(line);
      changed_.notify_all();
    } while (line != "end");
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  std::thread reader_;
};

}  // namespace

int run_client(char** arguments) {
  const uint64_t seed = std::strtoull(arguments[0], nullptr, 10);
  const auto process = static_cast<uint32_t>(std::atoi(arguments[1]));
  const auto make_party = process < kClientsProcesses ? make_clients_party : make_hydra_party;
  const std::unique_ptr<Party> party = make_party(seed, process, kWorkers);
  Commands commands;
  Workers workers(*party, seed, process);
  const AtRest at_rest;

  bool is_open = false;
  for (;;) {
    const std::string command = commands.next(kTendInterval);
    if (command == "end") return 0;
    if (command == "storm") {
      party->open();
      is_open = true;
      workers.start();
    } else if (command == "pause") {
      while (!workers.pause(kTendInterval)) party->tend();
      say("paused");
    } else if (command == "verify") {
      party->verify();
      party->close();
      is_open = false;
      at_rest.expect_again(*party);
      nlohmann::json report = journal().take_report();
      report["resident_kb"] = status_number("VmRSS");
      report["abandoned_blocks"] = party->abandoned_blocks();
      say(report.dump());
    } else if (is_open) {
      party->tend();
    }
  }
}

}  // namespace pelmar::system_test::chaos
