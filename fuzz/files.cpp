// Files that others write: system properties, scenarios of the simulated modem, recordings, and captures of messages.
//
//   input: u8 kind (a scenario, a property's file, a property's name and its value behind a zero byte, a capture, or
//          a recording), the bytes
//
// A scenario is refused with an error that names a place, or never has a number outside its field's range. A property
// is read as a terminated value within its limit, or as the default. A value that was set is read back. No name leads
// out of the directory. Of a capture, as many messages are read as can be in it, a link's names are bounded,
// a message as text is ASCII without control characters, and the modem plays the capture or refuses it. A recording
// makes a scenario or is refused.
#include <stdlib.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "capture.h"
#include "cutils/properties.h"
#include "message_text.h"
#include "messages.h"
#include "replay/recorded_traffic.h"
#include "scenario/recording.h"
#include "scenario/scenario.h"
#include "unique_fd.h"

using namespace pelmar::fuzz;
using namespace pelmar::sim;
namespace fs = std::filesystem;

namespace {

// Checks moments before, on, between and after the points, and in a later round.
void check_moments(const Scenario& scenario, const StatisticRow& row) {
  for (const double seconds : {0.0, 0.0005, 0.5, 1.0, 9.99, 11.0, 24.0, 40.0, 55.5, 1e6, 1e9}) {
    const auto values = scenario.at({0, row.id}, seconds);
    for (size_t i = 0; values && i < kMaxFields; ++i) {
      if (!values->fields[i]) continue;
      require(i < row.fields.size());
      const auto [least, most] = range_of(row.fields[i].type);
      require(*values->fields[i] >= least && *values->fields[i] <= most);
    }
  }
}

void read_scenario(const std::string& text) {
  try {
    const Scenario scenario = parse_scenario(text, [](const std::string&) {});
    require(scenario.repeat() >= 0 && scenario.tracks().size() + scenario.commands().size() > 0);
    for (const StatisticRow& row : statistic_rows()) check_moments(scenario, row);
  } catch (const ScenarioError& error) {
    require(std::string_view(error.what()).find(": ") != std::string_view::npos);
  }
}

// A directory that holds only the directory of the properties, until the process ends.
struct Outside {
  Outside() {
    char pattern[] = "/tmp/pelmar-fuzz-XXXXXX";
    path = mkdtemp(pattern);
    setenv("PELMAR_PROPERTY_DIR", (path / "properties").c_str(), 1);
    require(property_set("persist.file", "") == 0);  // makes the directories
  }
  ~Outside() { fs::remove_all(path); }

  fs::path path;
};

std::string get(const std::string& name) {
  Bytes value(PROPERTY_VALUE_MAX, 'x');
  auto* const text = reinterpret_cast<char*>(value.data());
  const int length = property_get(name.c_str(), text, "default");
  require(length >= 0 && length < PROPERTY_VALUE_MAX && strnlen(text, value.size()) == static_cast<size_t>(length));
  return text;
}

void set_and_get(const fs::path& outside, const std::string& name, const std::string& value) {
  if (property_set(name.c_str(), value.c_str()) == 0) {
    require(get(name) == (value.empty() ? "default" : value));
    for (const auto& entry : fs::recursive_directory_iterator(outside)) {
      if (entry.is_regular_file() && entry.path().filename() != "persist.file") fs::remove(entry.path());
    }
  }
  require(std::distance(fs::directory_iterator(outside), {}) == 1);
}

void read_capture(const std::string& text) {
  constexpr size_t kLeastPacket = 40;
  const pelmar::UniqueFd file(memfd_create("capture", MFD_CLOEXEC));
  require(write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()));
  lseek(file.get(), 0, SEEK_SET);
  pelmar::qmi::CaptureReader reader(file.get());
  pelmar::qmi::CapturedMessage message;
  size_t count = 0;
  for (; reader.next(message) == pelmar::qmi::CaptureReader::Status::kMessage; ++count) {
    require(reader.link(message.link).transport.size() < 256);
    const auto parsed = pelmar::qmi::read_message(message.frame);
    const pelmar::qmi::TracedMessage traced = {message, reader.link(message.link), parsed, {}, {}};
    std::string texts;
    pelmar::qmi::append_line(texts, traced, parsed.has_value());
    pelmar::qmi::append_json(texts, traced, true);
    require(std::all_of(texts.begin(), texts.end(),
                        [](char each) { return each == '\n' || (each >= ' ' && each <= '~'); }));
  }
  require(count * kLeastPacket <= text.size() && reader.position() <= text.size());
  try {
    const RecordedTraffic traffic("/proc/self/fd/" + std::to_string(file.get()));
    require(!traffic.clients().empty());
  } catch (const std::runtime_error&) {
  }
}

void read_recording(const std::string& text) {
  std::istringstream recording(text);
  try {
    scenario_of_recording(recording, "recording");
  } catch (const std::runtime_error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static const Outside outside;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] % 5 == 0) {
    read_scenario(text);
  } else if (data[0] % 5 == 3) {
    read_capture(text);
  } else if (data[0] % 5 == 4) {
    read_recording(text);
  } else if (data[0] % 5 == 1) {
    std::ofstream(outside.path / "properties/persist/persist.file", std::ios::binary) << text;
    get("persist.file");
  } else {
    const size_t end = std::min(text.find('\0'), text.size());
    set_and_get(outside.path, text.substr(0, end), end == text.size() ? "" : text.substr(end + 1).c_str());
  }
  return 0;
}
