// Files that others write: scenarios of the simulated modem, recordings, and captures of messages.
//
//   input: u8 kind (a scenario, a recording, or a capture), the bytes
//
// A scenario is refused with an error that names a place, or never has a number outside its field's range. A recording
// makes a scenario or is refused. Of a capture, as many messages are read as can be in it, a link's names are bounded,
// a message as text is ASCII without control characters, and the modem plays the capture or refuses it.
#include <sys/mman.h>

#include <sstream>
#include <stdexcept>
#include <string>

#include "capture.h"
#include "message_text.h"
#include "messages.h"
#include "replay/recorded_traffic.h"
#include "scenario/recording.h"
#include "scenario/scenario.h"
#include "unique_fd.h"

using namespace pelmar::fuzz;
using namespace pelmar::sim;

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
  constexpr void (*kReaders[])(const std::string&) = {read_scenario, read_recording, read_capture};
  if (size > 0) kReaders[data[0] % 3](std::string(reinterpret_cast<const char*>(data + 1), size - 1));
  return 0;
}
