// Whether the simulated modem runs: it does while it has power, unless a crash has left it down.
//
// What a crash does is the system's restart level, a property that clients set: "ALL_ENABLE" has the modem restart
// alone; any other level, also none, has its memory dumped, and then it stays down until the operator starts it or its
// power was off.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "qmi/modem.h"

namespace pelmar::sim {

class ModemPower {
 public:
  struct Times {
    std::chrono::milliseconds start;    // not ready for that long after the power came
    std::chrono::milliseconds restart;  // and after a crash
  };

  // write_dump writes the modem's memory and returns the file's name; it throws where that fails.
  ModemPower(Modem& modem, Times times, std::function<std::string()> write_dump)
      : modem_(modem), times_(times), write_dump_(std::move(write_dump)) {}

  bool has_power() const { return has_power_; }
  bool is_crashed() const { return is_crashed_; }

  // Returns how long the modem takes to become ready or to end.
  std::chrono::milliseconds switch_power(bool on);

  struct Crash {
    std::string level;
    std::string dump;  // empty: the modem restarts alone
  };

  // Only for a modem that runs.
  Crash crash();

  // Starts a modem that a crash has left down; false where there is none.
  bool start();

 private:
  Modem& modem_;
  const Times times_;
  const std::function<std::string()> write_dump_;
  bool has_power_ = true;
  bool is_crashed_ = false;
};

}  // namespace pelmar::sim
