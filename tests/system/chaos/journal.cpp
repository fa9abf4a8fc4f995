#include "chaos/journal.h"

namespace pelmar::system_test::chaos {

Journal& journal() {
  static Journal& journal = *new Journal;
  return journal;
}

void Journal::problem(std::string text) {
  const std::lock_guard guard(lock_);
  if (problems_.size() < kMaxProblems) problems_.push_back(std::move(text));
}

void Journal::call(std::string_view operation, modem_api_result result, Clock::duration took, Clock::duration limit) {
  ++calls_;
  const auto name = std::string(operation);
  const bool is_listed = result >= MODEM_API_SUCCESS && result <= MODEM_API_ERR_ALREADY_INITIALIZED;
  if (is_listed && result != MODEM_API_RESP_END) {
    ++results_[static_cast<size_t>(result)];
  } else {
    problem(name + " answered " + std::to_string(result));
  }
  const int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
  if (took > limit) problem(name + " took " + std::to_string(ms) + " ms");
  const std::lock_guard guard(lock_);
  if (ms <= longest_ms_) return;
  longest_ms_ = ms;
  longest_ = name;
}

nlohmann::json Journal::take_report() {
  nlohmann::json report = {
      {"calls", calls_.exchange(0)}, {"events", events_.exchange(0)}, {"reopenings", reopenings_.exchange(0)}};
  for (auto& count : results_) report["results"].push_back(count.exchange(0));
  const std::lock_guard guard(lock_);
  report["longest"] = {{"operation", longest_}, {"ms", longest_ms_}};
  report["problems"] = std::exchange(problems_, {});
  return report;
}

}  // namespace pelmar::system_test::chaos
