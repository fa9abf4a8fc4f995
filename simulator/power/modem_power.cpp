#include "power/modem_power.h"

#include <cutils/properties.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "io/text.h"
#include "storage/directory.h"

namespace pelmar::sim {

namespace {

constexpr const char* kRestartLevel = "persist.vendor.ssr.restart_level";
constexpr const char* kRestartAlone = "ALL_ENABLE";

constexpr const char* kDumpDirectory = "dumps";
constexpr const char* kDumpName = "modem-%u.txt";

unsigned next_dump_number(int directory) {
  unsigned last = 0;
  for (const Entry& entry : list_directory(directory, kDumpDirectory)) {
    unsigned number = 0;
    if (sscanf(entry.name.c_str(), kDumpName, &number) == 1) last = std::max(last, number);
  }
  return last + 1;
}

}  // namespace

std::string ModemPower::write_dump() const {
  const UniqueFd root(open(storage_directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const UniqueFd directory = require_directory(root.get(), kDumpDirectory);
  char name[32];
  snprintf(name, sizeof name, kDumpName, next_dump_number(directory.get()));
  const time_t now = time(nullptr);
  tm utc{};
  char when[32];
  strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &utc));
  const std::string text = std::string("modem crash, ") + when + "\n" + memory_() + "\n";
  if (replace_file(root.get(), directory.get(), name, bytes_of(text)) != QMI_ERR_NONE_V01) {
    throw std::runtime_error("cannot write the dump: " + std::string(strerror(errno)));
  }
  return storage_directory_ + '/' + kDumpDirectory + '/' + name;
}

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
  char level[PROPERTY_VALUE_MAX];
  property_get(kRestartLevel, level, "");
  Crash crash = {level, ""};
  if (crash.level == kRestartAlone) {
    modem_.restart(times_.restart);
    return crash;
  }
  crash.dump = write_dump();
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
