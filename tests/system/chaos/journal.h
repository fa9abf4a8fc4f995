// What one client process of a chaos run has seen of the library: its calls, and all that should not have been.
//
// There is one journal a process; any thread writes to it, callbacks included.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "modem_api.h"

namespace pelmar::system_test::chaos {

using Clock = std::chrono::steady_clock;

// A command may take 30 s; the rest is what a busy machine may add.
inline constexpr std::chrono::seconds kCallLimit{30 + 15};

class Journal {
 public:
  void problem(std::string text);

  // A call's result and duration, both of which may be a problem.
  void call(std::string_view operation, modem_api_result result, Clock::duration took, Clock::duration limit);

  void add_event() { ++events_; }
  void add_reopening() { ++reopenings_; }

  // What has happened since the last report, but for the longest call so far. Problems are told once.
  nlohmann::json take_report();

 private:
  static constexpr size_t kMaxProblems = 20;

  std::atomic<uint64_t> calls_{0};
  std::array<std::atomic<uint64_t>, MODEM_API_ERR_ALREADY_INITIALIZED + 1> results_{};
  std::atomic<uint64_t> events_{0};
  std::atomic<uint64_t> reopenings_{0};
  std::mutex lock_;
  int64_t longest_ms_ = 0;
  std::string longest_;  // the operation
  std::vector<std::string> problems_;
};

// Never destroyed: callbacks write until the process is gone.
Journal& journal();

// Makes a call of the library, and notes its result and its duration.
template <class Call>
modem_api_result noted(std::string_view operation, Call call, Clock::duration limit = kCallLimit) {
  const auto start = Clock::now();
  const modem_api_result result = call();
  journal().call(operation, result, Clock::now() - start, limit);
  return result;
}

}  // namespace pelmar::system_test::chaos
