// A point in time until which an operation may wait, or none: it may wait for ever.
#pragma once

#include <algorithm>
#include <chrono>
#include <ctime>

namespace pelmar::platform {

class Deadline {
 public:
  using Clock = std::chrono::steady_clock;
  using Milliseconds = std::chrono::milliseconds;

  static Deadline none() { return Deadline(); }
  static Deadline after(Milliseconds total) { return Deadline(total); }
  static Deadline now() { return Deadline(Milliseconds(0)); }

  bool is_none() const { return is_none_; }
  bool has_passed() const { return !is_none_ && has_passed_at(Clock::now()); }
  bool has_passed_at(Clock::time_point time) const { return !is_none_ && time >= at_; }
  Clock::time_point at() const { return at_; }

  // Rounded up, so that a wait of this length does not end early; 0 without a deadline.
  Milliseconds remaining() const {
    if (is_none_) return Milliseconds(0);
    return std::max(Milliseconds(0), std::chrono::ceil<Milliseconds>(at_ - Clock::now()));
  }

  // The same for a system call. Without a deadline the caller passes no time.
  timespec remaining_time() const {
    const auto total = remaining().count();
    return {static_cast<time_t>(total / 1000), static_cast<long>(total % 1000 * 1000000)};
  }

 private:
  Deadline() : is_none_(true) {}
  explicit Deadline(Milliseconds total) : is_none_(false), at_(Clock::now() + total) {}

  bool is_none_;
  Clock::time_point at_;
};

// How a send or a read ended that waits until a deadline. kGone: the connection is of no more use.
enum class SendStatus { kSent, kBlocked, kTimedOut, kGone };
enum class ReadStatus { kRead, kTimedOut, kGone };

inline const Deadline& earlier(const Deadline& one, const Deadline& other) {
  if (one.is_none() || other.is_none()) return one.is_none() ? other : one;
  return one.at() < other.at() ? one : other;
}

}  // namespace pelmar::platform
