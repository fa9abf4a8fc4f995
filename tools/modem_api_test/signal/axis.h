// Axes of a picture: which values they show, where their ticks stand, and what is written at them.
#pragma once

#include <string>
#include <vector>

namespace pelmar::cli {

struct Axis {
  double low;
  double high;
  double step;  // between ticks

  // 0 at the low end, 1 at the high end.
  double share(double value) const { return (value - low) / (high - low); }
  std::vector<double> ticks() const;
};

// Ends on ticks, spans at least one step, and has at most `most_ticks` steps of 1, 2 or 5 times a power of ten.
Axis level_axis(double low, double high, int most_ticks);

// From 0 to the recording's length, with steps that people count time in.
Axis time_axis(double seconds, int most_ticks);

// "30", "1:30", "1:00:00", by the axis's length.
std::string time_label(const Axis& axis, double seconds);
std::string time_unit(const Axis& axis);  // "s", "min:s", "h:min:s"

}  // namespace pelmar::cli
