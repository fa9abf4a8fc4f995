#include "power/crash_dump.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "console/commands.h"
#include "simulation.h"
#include "storage/directory.h"

namespace pelmar::sim {

namespace {

constexpr const char* kDirectory = "dumps";
constexpr const char* kNameFormat = "modem-%u.txt";

unsigned next_number(int directory) {
  unsigned last = 0;
  for (const Entry& entry : list_directory(directory, kDirectory)) {
    unsigned number = 0;
    if (sscanf(entry.name.c_str(), kNameFormat, &number) == 1) last = std::max(last, number);
  }
  return last + 1;
}

std::string utc_text(time_t time) {
  tm utc{};
  gmtime_r(&time, &utc);
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

}  // namespace

std::string write_crash_dump(const std::string& storage_directory, Simulation& simulation) {
  const UniqueFd root(open(storage_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const UniqueFd directory = require_directory(root.get(), kDirectory);
  char name[32];
  snprintf(name, sizeof name, kNameFormat, next_number(directory.get()));

  Json memory = run_command(simulation, "status");
  memory.erase("ok");
  const std::string text = "modem crash, " + utc_text(time(nullptr)) + "\n" +
                           memory.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  if (replace_file(root.get(), directory.get(), name, bytes) != QMI_ERR_NONE_V01) {
    throw std::runtime_error("cannot write the dump: " + std::string(strerror(errno)));
  }
  return storage_directory + '/' + kDirectory + '/' + name;
}

}  // namespace pelmar::sim
