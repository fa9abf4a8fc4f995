// The simulated modem's power and its crashes. The modem runs while it has power, unless a crash has left it down.
//
// The effect of a crash is the system's restart level, a property that clients set: with "ALL_ENABLE" the modem
// restarts by itself; with any other level, or none, its memory is dumped into the next file dumps/modem-N.txt of the
// storage directory, and it stays down until the user starts it or its power was off.
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

  // memory: returns the text that a dump has.
  ModemPower(Modem& modem, Times times, std::string storage_directory, std::function<std::string()> memory)
      : modem_(modem), times_(times), storage_directory_(std::move(storage_directory)), memory_(std::move(memory)) {}

  bool has_power() const { return has_power_; }
  bool is_crashed() const { return is_crashed_; }

  // Returns how long the modem takes to become ready or to end.
  std::chrono::milliseconds switch_power(bool on);

  struct Crash {
    std::string level;
    std::string dump;  // the file's path; empty: the modem restarts by itself
  };

  // REQUIRES: the modem runs. Throws std::runtime_error where the dump cannot be written.
  Crash crash();

  // Starts a modem that a crash has left down; false where there is none.
  bool start();

 private:
  std::string write_dump() const;

  Modem& modem_;
  const Times times_;
  const std::string storage_directory_;
  const std::function<std::string()> memory_;
  bool has_power_ = true;
  bool is_crashed_ = false;
};

}  // namespace pelmar::sim
