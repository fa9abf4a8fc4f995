// The simulated modem's reader of scenarios, and what a scenario then says.
//
//   input: the text of a scenario
//
// What holds whatever the text: it is refused with an error that names a place, or it becomes a scenario whose tracks
// go by time, and which at no moment has a number that its field cannot hold.
#include "scenario/scenario.h"

#include "messages.h"

using pelmar::fuzz::require;
using namespace pelmar::sim;

namespace {

// Before, on, between and after the points, and in a later round.
constexpr double kMoments[] = {0, 0.0005, 0.5, 1, 9.99, 11, 24, 40, 55.5, 1e6, 1e9};

void check_track(const Scenario::Track& track) {
  const StatisticRow* const row = find_statistic(track.key.id);
  require(row != nullptr && track.key.sub < kSubscriptions);
  require(!track.fields.empty() && !track.points.empty());
  for (const size_t field : track.fields) require(field < row->fields.size() || field == Scenario::kPresence);
  for (size_t i = 0; i < track.points.size(); ++i) {
    require(track.points[i].numbers.size() == track.fields.size());
    require(i == 0 || track.points[i - 1].seconds < track.points[i].seconds);
  }
}

void check_moment(const Scenario& scenario, const StatisticRow& row, uint16_t sub, double seconds) {
  const auto said = scenario.at({sub, row.id}, seconds);
  if (!said) return;
  for (size_t i = 0; i < kMaxFields; ++i) {
    if (!said->fields[i]) continue;
    require(i < row.fields.size());
    const auto [least, most] = range_of(row.fields[i].type);
    require(*said->fields[i] >= least && *said->fields[i] <= most);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    const Scenario scenario = parse_scenario({reinterpret_cast<const char*>(data), size});
    require(scenario.repeat() >= 0 && !scenario.tracks().empty());
    for (const Scenario::Track& track : scenario.tracks()) check_track(track);
    for (const StatisticRow& row : statistic_rows()) {
      for (uint16_t sub = 0; sub < kSubscriptions; ++sub) {
        for (const double seconds : kMoments) check_moment(scenario, row, sub, seconds);
      }
    }
  } catch (const ScenarioError& error) {
    require(std::string_view(error.what()).find(": ") != std::string_view::npos);
  }
  return 0;
}
