#include "power/modem_power.h"

#include <cutils/properties.h>

namespace pelmar::sim {

namespace {

constexpr const char* kRestartLevel = "persist.vendor.ssr.restart_level";
constexpr const char* kRestartAlone = "ALL_ENABLE";

std::string restart_level() {
  char value[PROPERTY_VALUE_MAX];
  property_get(kRestartLevel, value, "");
  return value;
}

}  // namespace

std::chrono::milliseconds ModemPower::switch_power(bool on) {
  has_power_ = on;
  is_crashed_ = false;
  if (!on) {
    modem_.turn_off();
    return {};
  }
  modem_.turn_on(times_.start);
  return times_.start;
}

ModemPower::Crash ModemPower::crash() {
  Crash crash = {restart_level(), ""};
  if (crash.level == kRestartAlone) {
    modem_.restart(times_.restart);
    return crash;
  }
  crash.dump = write_dump_();
  is_crashed_ = true;
  modem_.turn_off();
  return crash;
}

bool ModemPower::start() {
  if (!is_crashed_) return false;
  is_crashed_ = false;
  modem_.turn_on(times_.restart);
  return true;
}

}  // namespace pelmar::sim
