#include "signal/axis.h"

#include <cmath>
#include <cstdio>
#include <iterator>

namespace pelmar::cli {

namespace {

constexpr double kTimeSteps[] = {0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 14400};
constexpr double kMinute = 60;
constexpr double kHour = 3600;

double round_step(double least) {
  const double power = std::pow(10, std::floor(std::log10(least)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * power >= least * (1 - 1e-9)) return factor * power;
  }
  return 10 * power;
}

}  // namespace

std::vector<double> Axis::ticks() const {
  std::vector<double> ticks;
  const auto first = std::lround(std::ceil(low / step - 1e-9));
  const auto last = std::lround(std::floor(high / step + 1e-9));
  for (auto i = first; i <= last; ++i) ticks.push_back(static_cast<double>(i) * step);
  return ticks;
}

Axis level_axis(double low, double high, int most_ticks) {
  const double step = round_step(std::fmax(high - low, 1) / most_ticks);
  Axis axis{std::floor(low / step) * step, std::ceil(high / step) * step, step};
  if (axis.low == axis.high) axis.high += step;
  return axis;
}

Axis time_axis(double seconds, int most_ticks) {
  const double length = std::fmax(seconds, 1);
  for (const double step : kTimeSteps) {
    if (length / step <= most_ticks) return {0, length, step};
  }
  return {0, length, std::ceil(length / most_ticks / kHour) * kHour};
}

std::string time_label(const Axis& axis, double seconds) {
  char text[48];
  const auto whole = std::lround(seconds);
  if (axis.high < 2 * kMinute) {
    snprintf(text, sizeof text, axis.step < 1 ? "%.1f" : "%.0f", seconds);
  } else if (axis.high < 2 * kHour) {
    snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  } else {
    snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  }
  return text;
}

std::string time_unit(const Axis& axis) {
  if (axis.high < 2 * kMinute) return "s";
  return axis.high < 2 * kHour ? "min:s" : "h:min:s";
}

}  // namespace pelmar::cli
