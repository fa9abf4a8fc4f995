// A thread polls a descriptor, except while another thread reads it in its place. The poll stays disarmed between
// readers that follow each other, which saves two system calls for each. If another thread waits for what the thread
// reads, the poll is armed at once.
#pragma once

#include "deadline.h"

namespace pelmar::platform {

// Decides when the thread arms its poll again. REQUIRES for every function: the mutex of the descriptor's owner is
// held.
class ReadingPause {
 public:
  // Readers follow each other if they end within this time of each other. What arrives after the last one is read at
  // most twice this time later.
  static constexpr Deadline::Milliseconds kLength{2};

  // What to do after a reader has ended and no other reads. kWakeThread: its wait must end after kLength from now on.
  enum class Action { kArm, kWakeThread, kNone };
  Action reader_ended() {
    const auto now = Deadline::Clock::now();
    const bool follows = now - last_end_ < kLength;
    last_end_ = now;
    if (is_timed_) return Action::kNone;
    if (!follows) return Action::kArm;
    is_timed_ = true;
    return Action::kWakeThread;
  }

  // Whether the thread's wait must end after kLength.
  bool is_timed() const { return is_timed_; }

  // The thread calls it after each wait. Returns true once no reader has followed: unless another thread reads, the
  // thread must arm its poll.
  bool take_end() {
    if (!is_timed_ || Deadline::Clock::now() - last_end_ < kLength) return false;
    is_timed_ = false;
    return true;
  }

 private:
  bool is_timed_ = false;
  Deadline::Clock::time_point last_end_;
};

}  // namespace pelmar::platform
