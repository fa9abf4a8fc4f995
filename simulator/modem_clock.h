// The modem's own time: from 0 at its start, at the pace of the machine's clock, unless it is held.
//
// All that changes by itself in the simulated modem is a function of this time, so a modem whose clock is held always
// gives the same values. A restart of the modem does not touch its clock: the phone moves on meanwhile.
#pragma once

#include <chrono>
#include <optional>

namespace pelmar::sim {

class ModemClock {
 public:
  using Time = std::chrono::milliseconds;

  // Held from its start, or from 0 at the pace of the machine's clock.
  explicit ModemClock(std::optional<Time> held = {}) : base_(held.value_or(Time{0})), is_held_(held.has_value()) {}

  Time now() const { return is_held_ ? base_ : base_ + since(base_instant_); }
  bool is_held() const { return is_held_; }

  void hold_at(Time time) {
    base_ = time;
    is_held_ = true;
  }

  // Goes on from the time that it shows.
  void run() {
    base_ = now();
    base_instant_ = Clock::now();
    is_held_ = false;
  }

 private:
  using Clock = std::chrono::steady_clock;

  static Time since(Clock::time_point instant) { return std::chrono::duration_cast<Time>(Clock::now() - instant); }

  Time base_;
  Clock::time_point base_instant_ = Clock::now();
  bool is_held_;
};

}  // namespace pelmar::sim
