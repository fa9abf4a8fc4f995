#include "scenario/scenario.h"

#include <algorithm>
#include <cmath>

namespace pelmar::sim {

namespace {

// Both points are the same before the first and after the last one.
struct Surroundings {
  const Scenario::Point& before;
  const Scenario::Point& after;
  double share;  // of the way from one to the other
};

Surroundings surroundings(const std::vector<Scenario::Point>& points, double seconds) {
  const auto after = std::upper_bound(points.begin(), points.end(), seconds,
                                      [](double time, const Scenario::Point& point) { return time < point.seconds; });
  if (after == points.begin()) return {points.front(), points.front(), 0};
  const auto before = std::prev(after);
  if (after == points.end()) return {*before, *before, 0};
  return {*before, *after, (seconds - before->seconds) / (after->seconds - before->seconds)};
}

}  // namespace

std::optional<ScenarioNumbers> Scenario::at(const StatisticKey& key, double seconds) const {
  const double time = repeat_ > 0 ? std::fmod(seconds, repeat_) : seconds;
  std::optional<ScenarioNumbers> found;
  for (const Track& track : tracks_) {
    if (track.key != key) continue;
    if (!found) found = ScenarioNumbers{true, {}};
    const auto [before, after, share] = surroundings(track.points, time);
    for (size_t i = 0; i < track.fields.size(); ++i) {
      const double number = before.numbers[i];
      if (track.fields[i] == kPresence) {
        found->is_there = number != 0;
      } else {
        found->fields[track.fields[i]] = track.is_stepped ? number : std::lerp(number, after.numbers[i], share);
      }
    }
  }
  return found;
}

}  // namespace pelmar::sim
