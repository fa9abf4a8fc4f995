// A scenario: numbers over time for fields of statistics values, in the place of the radio picture's; an attenuation of
// a subscription's radio over time; and commands of the control socket with the times at which they are run.
//
// It is a set of tracks. A track has commands, or it gives fields of one statistics value of one subscription their
// numbers at points of time, counted in seconds from the scenario's start; between points they are interpolated or
// stay, before the first and after the last point they are that point's. A value with a track is there also where the
// picture has none, unless the track of its presence makes it absent. The JSON form is in docs/simulator.md.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "statistics/statistic_rows.h"

namespace pelmar::sim {

// A scenario's numbers for one value at one moment.
struct ScenarioNumbers {
  bool is_there = false;
  std::array<std::optional<double>, kMaxFields> fields;
};

class Scenario {
 public:
  // The place of the presence among a track's fields.
  static constexpr size_t kPresence = kMaxFields;

  // In place of a statistics identifier: the track's one field is the attenuation of all levels of the radio, in dB.
  static constexpr uint32_t kRadio = UINT32_MAX;

  struct Point {
    double seconds;
    std::vector<double> numbers;  // one a field
  };

  struct Track {
    StatisticKey key;
    std::vector<size_t> fields;  // places in the value's row, or kPresence, which is 0 or 1 and never interpolated
    bool is_stepped = false;
    std::vector<Point> points;  // one at least, by time
  };

  struct Command {
    double seconds;
    std::string line;
    std::string place;  // in the file, such as "tracks[1].commands[0]"
  };

  // commands: by time.
  Scenario(std::string description, double repeat, std::vector<Track> tracks, std::vector<Command> commands)
      : description_(std::move(description)),
        repeat_(repeat),
        tracks_(std::move(tracks)),
        commands_(std::move(commands)) {}

  const std::string& description() const { return description_; }
  double repeat() const { return repeat_; }  // begins anew after that many seconds; 0: never
  const std::vector<Track>& tracks() const { return tracks_; }
  const std::vector<Command>& commands() const { return commands_; }  // by time

  // Nothing where the value has no track.
  std::optional<ScenarioNumbers> at(const StatisticKey& key, double seconds) const;

 private:
  std::string description_;
  double repeat_;
  std::vector<Track> tracks_;
  std::vector<Command> commands_;
};

// The longest file of a scenario.
inline constexpr size_t kMaxScenarioBytes = size_t{32} << 20;

// Names the place in the text, such as "tracks[2].points[0]", or its line and column where it is no JSON.
class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws std::runtime_error for a line that is no right command.
using CommandCheck = std::function<void(const std::string& line)>;

Scenario parse_scenario(std::string_view text, const CommandCheck& check_command);

// The error begins with the path.
Scenario load_scenario(const std::string& path, const CommandCheck& check_command);

}  // namespace pelmar::sim
