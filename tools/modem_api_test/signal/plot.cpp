// The picture of a recording.
#include <algorithm>
#include <cstdio>
#include <iterator>

#include "printable_text.h"
#include "signal/recording.h"

namespace pelmar::cli {

namespace {

// Places in the picture, in its units.
constexpr double kWidth = 1150;
constexpr double kLeastHeight = 792;
constexpr double kLeft = 76;
constexpr double kRight = 830;
constexpr double kFirstPanelTop = 72;
constexpr double kPanelHeight = 200;
constexpr double kPanelGap = 34;
constexpr double kLegendLeft = 852;
constexpr double kLegendStep = 38;
constexpr int kMostLevelTicks = 7;
constexpr int kMostTimeTicks = 9;

// A gap between two points that is so many times the usual one interrupts the line: the modem was away.
constexpr double kGapFactor = 4;

// Points that stand closer than this are drawn as their highest and lowest.
constexpr double kResolution = 0.5;

// A carrier has its colour in every picture; subscriptions differ by their dashes.
constexpr const char* kLteColours[] = {"#0072b2", "#d55e00", "#009e73", "#e69f00", "#cc79a7", "#56b4e9", "#8c564b"};
constexpr const char* kNrColours[] = {"#000000", "#7f7f7f", "#bcbd22"};
constexpr const char* kDashes[kSubscriptions] = {"", R"( stroke-dasharray="7 4")"};

// --- axes: which values they show, where their ticks stand, and what is written at them ---

constexpr double kTimeSteps[] = {0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 14400};
constexpr double kMinute = 60;
constexpr double kHour = 3600;

// `is_short`: a whole number has no decimal place.
std::string number(double value, bool is_short = false) {
  char text[32];
  snprintf(text, sizeof text, is_short ? "%g" : "%.1f", value);
  return text;
}

double round_step(double least) {
  const double power = std::pow(10, std::floor(std::log10(least)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * power >= least * (1 - 1e-9)) return factor * power;
  }
  return 10 * power;
}

struct Axis {
  double low;
  double high;
  double step;  // between ticks

  // 0 at the low end, 1 at the high end.
  double share(double value) const { return (value - low) / (high - low); }
  std::vector<double> ticks() const {
    std::vector<double> ticks;
    const auto first = std::lround(std::ceil(low / step - 1e-9));
    const auto last = std::lround(std::floor(high / step + 1e-9));
    for (auto i = first; i <= last; ++i) ticks.push_back(static_cast<double>(i) * step);
    return ticks;
  }
};

// Ends on ticks, spans at least one step, and has at most `most_ticks` steps of 1, 2 or 5 times a power of ten.
Axis level_axis(LevelRange range, int most_ticks) {
  if (std::isnan(range.low)) range = {0, 1};
  const double step = round_step(std::fmax(range.high - range.low, 1) / most_ticks);
  Axis axis{std::floor(range.low / step) * step, std::ceil(range.high / step) * step, step};
  if (axis.low == axis.high) axis.high += step;
  return axis;
}

// Reaches from 0 to the recording's length, with steps of seconds, minutes or hours.
Axis time_axis(double seconds, int most_ticks) {
  const double length = std::fmax(seconds, 1);
  for (const double step : kTimeSteps) {
    if (length / step <= most_ticks) return {0, length, step};
  }
  return {0, length, std::ceil(length / most_ticks / kHour) * kHour};
}

// "30", "1:30", "1:00:00", by the axis's length.
std::string time_label(const Axis& axis, double seconds) {
  if (axis.high < 2 * kMinute) return number(seconds, axis.step >= 1);
  const auto whole = std::lround(seconds);
  char text[48];
  if (axis.high < 2 * kHour) {
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

// --- the picture ---

struct Panel {
  const char* title;
  double TrackPoint::*level;
  double top;
};

constexpr Panel kPanels[] = {
    {"RSRP [dBm]", &TrackPoint::rsrp, kFirstPanelTop},
    {"SNR [dB]", &TrackPoint::snr, kFirstPanelTop + kPanelHeight + kPanelGap},
    {"transmit power [dBm]", &TrackPoint::tx_power, kFirstPanelTop + 2 * (kPanelHeight + kPanelGap)},
};
constexpr double kPanelsBottom = kPanels[2].top + kPanelHeight;

// Replaces colours that would be hard to see on a dark background.
constexpr const char* kDarkStyle =
    "<style>@media (prefers-color-scheme: dark) {\n"
    "[fill='#fff'] { fill: #0d1117 } text { fill: #e6edf3 }\n"
    "[stroke='#ddd'], [stroke='#eee'] { stroke: #2a313c } [stroke='#444'] { stroke: #8b949e }\n"
    "[stroke='#000000'] { stroke: #fff } [stroke='#0072b2'] { stroke: #3d9be0 } [stroke='#8c564b'] { stroke: #c08a7d "
    "}\n"
    "}</style>\n";
constexpr const char* kNote = R"(fill="#555" font-size="11")";

std::string line(double x1, double y1, double x2, double y2, const std::string& attributes) {
  return "<line x1=\"" + number(x1) + "\" y1=\"" + number(y1) + "\" x2=\"" + number(x2) + "\" y2=\"" + number(y2) +
         "\" " + attributes + "/>\n";
}

struct Point {
  double x;
  double y;
};

// At most two points a column of the picture, whatever the recording's length.
std::vector<Point> thinned(const std::vector<Point>& points) {
  std::vector<Point> thin;
  const auto column = [](const Point& point) { return std::floor(point.x / kResolution); };
  for (auto begin = points.begin(); begin != points.end();) {
    const auto end =
        std::find_if(begin, points.end(), [&](const Point& point) { return column(point) != column(*begin); });
    const auto [low, high] = std::minmax_element(begin, end, [](const Point& a, const Point& b) { return a.y < b.y; });
    thin.push_back(*std::min(low, high));
    if (low != high) thin.push_back(*std::max(low, high));
    begin = end;
  }
  return thin;
}

std::string words(double x, double y, const std::string& text, const std::string& attributes = "") {
  return "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" " + attributes + ">" + text + "</text>\n";
}

double seconds_between(WallClock::time_point from, WallClock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// Text of the user's, which may hold what a document is made of.
std::string escaped(const std::string& text) {
  std::string safe;
  for (const char each : printable_text(text)) {
    safe += each == '&' ? "&amp;" : each == '<' ? "&lt;" : std::string(1, each);
  }
  return safe;
}

// "-92 to -64 dBm" with what stands before it; empty where nothing was measured.
std::string range_text(const char* before, const Track& track, double TrackPoint::*level, const char* unit) {
  LevelRange range;
  for (const TrackPoint& point : track) range.add(point.*level);
  if (std::isnan(range.low)) return "";
  return before + whole_level_text(range.low) + " to " + whole_level_text(range.high) + unit;
}

// Above this time between two points, in seconds, the line is interrupted.
double gap_of(const Track& track) {
  std::vector<double> steps;
  for (size_t i = 1; i < track.size(); ++i) steps.push_back(seconds_between(track[i - 1].time, track[i].time));
  if (steps.empty()) return 0;
  const auto middle = steps.begin() + static_cast<ptrdiff_t>(steps.size() / 2);
  std::nth_element(steps.begin(), middle, steps.end());
  return *middle * kGapFactor;
}

class Picture {
 public:
  Picture(const Recording& recording, const std::string& title) : recording_(recording), title_(title) {
    start_ = recording.begin()->second.front().time;
    end_ = start_;
    for (const auto& [key, track] : recording) {
      start_ = std::min(start_, track.front().time);
      end_ = std::max(end_, track.back().time);
    }
    time_ = time_axis(seconds_between(start_, end_), kMostTimeTicks);
  }

  std::string draw() {
    begin();
    for (const Panel& panel : kPanels) draw_panel(panel);
    for (const auto& [key, track] : recording_) {
      if (key.second.index == 0) draw_cell_changes(key, track);
    }
    for (const double tick : time_.ticks()) {
      svg_ += words(x_of(tick), kPanelsBottom + 20, time_label(time_, tick), "text-anchor=\"middle\"");
    }
    svg_ += words((kLeft + kRight) / 2, kPanelsBottom + 44, "time since the start [" + time_unit(time_) + "]",
                  "text-anchor=\"middle\"");
    draw_legend();
    return svg_ + "</svg>\n";
  }

 private:
  void begin() {
    const double legend = kFirstPanelTop + static_cast<double>(recording_.size()) * kLegendStep;
    const std::string height = number(std::fmax(kLeastHeight, legend));
    const std::string size = "width=\"" + number(kWidth) + "\" height=\"" + height + "\"";
    svg_ = "<svg xmlns=\"http://www.w3.org/2000/svg\" " + size + " viewBox=\"0 0 " + number(kWidth) + " " + height +
           "\" font-family=\"Helvetica, Arial, sans-serif\" font-size=\"13\" fill=\"#222\">\n" + kDarkStyle + "<rect " +
           size + " fill=\"#fff\"/>\n";
    svg_ += words(kLeft, 30, escaped(title_), R"(font-size="19" font-weight="bold")");
    const double length = seconds_between(start_, end_);
    svg_ += words(kLeft, 52,
                  utc_text(start_) + ", " + number(length) +
                      " s; strongest receive chain of each carrier; dotted: the serving cell changes",
                  "fill=\"#555\"");
  }

  double x_of(double seconds) const { return kLeft + time_.share(seconds) * (kRight - kLeft); }

  static double y_of(const Panel& panel, const Axis& axis, double level) {
    return panel.top + (1 - axis.share(level)) * kPanelHeight;
  }

  void draw_panel(const Panel& panel) {
    LevelRange range;
    for (const auto& [key, track] : recording_) {
      for (const TrackPoint& point : track) range.add(point.*panel.level);
    }
    const Axis axis = level_axis(range, kMostLevelTicks);
    const double bottom = panel.top + kPanelHeight;
    for (const double tick : axis.ticks()) {
      const double y = y_of(panel, axis, tick);
      svg_ += line(kLeft, y, kRight, y, "stroke=\"#ddd\"");
      svg_ += words(kLeft - 8, y + 4.5, number(tick, true), "text-anchor=\"end\"");
    }
    for (const double tick : time_.ticks()) {
      svg_ += line(x_of(tick), panel.top, x_of(tick), bottom, "stroke=\"#eee\"");
      svg_ += line(x_of(tick), bottom, x_of(tick), bottom + 5, "stroke=\"#444\"");
    }
    const double middle = panel.top + kPanelHeight / 2;
    svg_ +=
        words(24, middle, panel.title, "text-anchor=\"middle\" transform=\"rotate(-90 24 " + number(middle) + ")\"");
    for (const auto& [key, track] : recording_) draw_track(panel, axis, style_of(key), track);
    svg_ += "<rect x=\"" + number(kLeft) + "\" y=\"" + number(panel.top) + "\" width=\"" + number(kRight - kLeft) +
            "\" height=\"" + number(kPanelHeight) + "\" fill=\"none\" stroke=\"#444\"/>\n";
  }

  static std::string colour_of(const CarrierName& carrier) {
    const bool is_lte = carrier.technology == Technology::kLte;
    return std::string(" stroke=\"") +
           (is_lte ? kLteColours[carrier.index % std::size(kLteColours)]
                   : kNrColours[carrier.index % std::size(kNrColours)]) +
           '"';
  }

  static std::string style_of(const TrackKey& key) {
    return "fill=\"none\" stroke-width=\"1.7\" stroke-linejoin=\"round\" stroke-linecap=\"round\"" +
           colour_of(key.second) + kDashes[key.first % kSubscriptions];
  }

  void draw_track(const Panel& panel, const Axis& axis, const std::string& style, const Track& track) {
    const double gap = gap_of(track);
    std::vector<Point> run;
    const TrackPoint* last = nullptr;
    for (const TrackPoint& point : track) {
      const double level = point.*panel.level;
      const bool is_interrupted = last != nullptr && seconds_between(last->time, point.time) > gap;
      if (std::isnan(level) || is_interrupted) finish_run(run, style);
      if (std::isnan(level)) continue;
      run.push_back({x_of(seconds_between(start_, point.time)), y_of(panel, axis, level)});
      last = &point;
    }
    finish_run(run, style);
  }

  // A lone point is drawn as a dot.
  void finish_run(std::vector<Point>& run, const std::string& style) {
    if (run.empty()) return;
    std::vector<Point> points = thinned(run);
    if (points.size() == 1) points.push_back(points.front());
    svg_ += "<polyline " + style + " points=\"";
    for (const Point& point : points) svg_ += number(point.x) + ',' + number(point.y) + " ";
    svg_.back() = '"';
    svg_ += "/>\n";
    run.clear();
  }

  // A line through all panels where the carrier has another cell than before.
  void draw_cell_changes(const TrackKey& key, const Track& track) {
    for (size_t i = 1; i < track.size(); ++i) {
      const TrackPoint& point = track[i];
      if (!point.pci || (point.pci == track[i - 1].pci && point.channel == track[i - 1].channel)) continue;
      const double x = x_of(seconds_between(start_, point.time));
      svg_ += line(x, kFirstPanelTop, x, kPanelsBottom, "stroke-dasharray=\"2 4\"" + colour_of(key.second));
      svg_ += words(x + 3, kFirstPanelTop + 12,
                    "sub " + std::to_string(key.first) + " PCI " + std::to_string(*point.pci), kNote);
    }
  }

  void draw_legend() {
    double y = kFirstPanelTop + 8;
    for (const auto& [key, track] : recording_) {
      svg_ += line(kLegendLeft, y, kLegendLeft + 30, y, style_of(key));
      const std::string name = "sub " + std::to_string(key.first) + ' ' + text_of(key.second);
      svg_ += words(kLegendLeft + 38, y + 4.5, name + channels_of(track));
      const std::string ranges = range_text("", track, &TrackPoint::rsrp, " dBm") +
                                 range_text(", ", track, &TrackPoint::snr, " dB") +
                                 range_text(", tx ", track, &TrackPoint::tx_power, " dBm");
      svg_ += words(kLegendLeft + 38, y + 19.5, ranges, kNote);
      y += kLegendStep;
    }
  }

  // ", channel 1300, then 6300": the first and the last.
  static std::string channels_of(const Track& track) {
    const auto first = track.front().channel;
    const auto last = track.back().channel;
    if (!first || !last) return "";
    return ", channel " + std::to_string(*first) + (last == first ? "" : ", then " + std::to_string(*last));
  }

  const Recording& recording_;
  const std::string& title_;
  WallClock::time_point start_;
  WallClock::time_point end_;
  Axis time_{};
  std::string svg_;
};

}  // namespace

std::string plot_svg(const Recording& recording, const std::string& title) {
  return Picture(recording, title).draw();
}

}  // namespace pelmar::cli
