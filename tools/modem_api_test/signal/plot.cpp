// The picture of a recording.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <utility>

#include "printable_text.h"
#include "signal/recording.h"

namespace pelmar::cli {

namespace {

using Track = Recording::Track;

// Places in the picture, in its units.
constexpr double kWidth = 1060;
constexpr double kBottom = 52;  // below the lowest panel, and below a legend that reaches further
constexpr double kLeft = 76;
constexpr double kRight = 830;
constexpr double kFirstPanelTop = 72;
constexpr double kPanelHeight = 200;
constexpr double kPanelGap = 34;
constexpr double kLegendLeft = 852;
constexpr double kLegendStep = 15;
constexpr size_t kMostChannels = 4;  // in the legend, of one carrier
constexpr double kCellSpacing = 60;  // from a mark to the next one that has a label
constexpr int kMostLevelTicks = 7;
constexpr int kMostTimeTicks = 9;

// A gap between two points that is so many times the usual one interrupts the line: the modem was away.
constexpr double kGapFactor = 4;

// Points that stand closer than this are drawn as their highest and lowest.
constexpr double kResolution = 0.5;

// A carrier has its colour in every picture; subscriptions differ by their dashes.
struct Colour {
  const char* selector;
  const char* property;
  const char* light;
  const char* dark;
};

constexpr uint32_t kLteColours = 7;
constexpr uint32_t kNrColours = 3;
constexpr Colour kColours[] = {
    {".page", "fill", "#fff", "#0d1117"},      {"text", "fill", "#222", "#e6edf3"},
    {".note", "fill", "#555", "#9aa4af"},      {".grid", "stroke", "#e4e4e4", "#262c36"},
    {".frame", "stroke", "#444", "#8b949e"},   {".lte0", "stroke", "#0072b2", "#58a6ff"},
    {".lte1", "stroke", "#d55e00", "#ff8c42"}, {".lte2", "stroke", "#009e73", "#2dd4a0"},
    {".lte3", "stroke", "#e69f00", "#ffc53d"}, {".lte4", "stroke", "#cc79a7", "#e8a0c8"},
    {".lte5", "stroke", "#56b4e9", "#8fd3ff"}, {".lte6", "stroke", "#8c564b", "#c08a7d"},
    {".nr0", "stroke", "#000", "#fff"},        {".nr1", "stroke", "#7f7f7f", "#a8a8a8"},
    {".nr2", "stroke", "#bcbd22", "#e3e34d"},  {".power", "stroke", "#b3123f", "#ff6b8b"},
};
constexpr const char* kShape =
    ".frame, .track { fill: none }\n"
    ".track { stroke-width: 1.7; stroke-linejoin: round; stroke-linecap: round }\n";
constexpr const char* kDashes[kSubscriptions] = {"", R"( stroke-dasharray="7 4")"};

// --- axes: which values they show, where their ticks stand, and what is written at them ---

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
Axis level_axis(double low, double high, int most_ticks) {
  const double step = round_step(std::fmax(high - low, 1) / most_ticks);
  Axis axis{std::floor(low / step) * step, std::ceil(high / step) * step, step};
  if (axis.low == axis.high) axis.high += step;
  return axis;
}

// From 0 to the recording's length, with steps that people count time in.
Axis time_axis(double seconds, int most_ticks) {
  const double length = std::fmax(seconds, 1);
  for (const double step : kTimeSteps) {
    if (length / step <= most_ticks) return {0, length, step};
  }
  return {0, length, std::ceil(length / most_ticks / kHour) * kHour};
}

// "30", "1:30", "1:00:00", by the axis's length.
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

std::string style_sheet() {
  std::string light;
  std::string dark;
  for (const Colour& colour : kColours) {
    const std::string start = std::string(colour.selector) + " { " + colour.property + ": ";
    light += start + colour.light + " }\n";
    dark += start + colour.dark + " }\n";
  }
  return "<style>\n" + light + kShape + "@media (prefers-color-scheme: dark) {\n" + dark + "}\n</style>\n";
}

// Text of the user's, which may hold what a document is made of.
std::string escaped(const std::string& text) {
  std::string safe;
  for (const char character : printable_text(text, "")) {
    if (character == '&') {
      safe += "&amp;";
    } else if (character == '<') {
      safe += "&lt;";
    } else {
      safe += character;
    }
  }
  return safe;
}

std::string number(double value, bool is_short = false) {
  char text[32];
  snprintf(text, sizeof text, is_short ? "%g" : "%.1f", value);
  return text;
}

std::string line(double x1, double y1, double x2, double y2, const char* attributes) {
  return "<line x1=\"" + number(x1) + "\" y1=\"" + number(y1) + "\" x2=\"" + number(x2) + "\" y2=\"" + number(y2) +
         "\" " + attributes + "/>\n";
}

constexpr const char* kNote = R"(class="note" font-size="11")";

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
    start_ = recording.tracks().begin()->second.front().time;
    end_ = start_;
    for (const auto& [key, track] : recording.tracks()) {
      start_ = std::min(start_, track.front().time);
      end_ = std::max(end_, track.back().time);
    }
    time_ = time_axis(seconds_between(start_, end_), kMostTimeTicks);
  }

  std::string draw() {
    for (const Panel& panel : kPanels) draw_panel(panel);
    for (const auto& [key, track] : recording_.tracks()) {
      if (key.second && key.second->index == 0) draw_cell_changes(key, track);
    }
    draw_time_labels();
    const double bottom = std::fmax(kPanelsBottom, draw_legend()) + kBottom;
    return head(bottom) + svg_ + "</svg>\n";
  }

 private:
  std::string head(double height) const {
    const std::string size = "width=\"" + number(kWidth) + "\" height=\"" + number(height) + "\"";
    const double length = seconds_between(start_, end_);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" " + size + " viewBox=\"0 0 " + number(kWidth) + " " +
           number(height) + "\" font-family=\"Helvetica, Arial, sans-serif\" font-size=\"13\">\n" + style_sheet() +
           "<rect " + size + " class=\"page\"/>\n" +
           words(kLeft, 30, escaped(title_), R"(font-size="19" font-weight="bold")") +
           words(kLeft, 52,
                 start_text() + " UTC, " + number(length) + " s; strongest receive chain of each carrier" +
                     (has_cell_changes_ ? "; dotted: the serving cell changes" : ""),
                 kNote);
  }

  // "2026-11-21 10:02:03".
  std::string start_text() const {
    std::string text = utc_text(start_).substr(0, 19);
    text[10] = ' ';
    return text;
  }

  double x_of(double seconds) const { return kLeft + time_.share(seconds) * (kRight - kLeft); }

  static double y_of(const Panel& panel, const Axis& axis, double level) {
    return panel.top + (1 - axis.share(level)) * kPanelHeight;
  }

  // Of all that the panel shows.
  Axis axis_of(const Panel& panel) const {
    double low = NAN;
    double high = NAN;
    for (const auto& [key, track] : recording_.tracks()) {
      for (const TrackPoint& point : track) {
        low = std::fmin(low, point.*panel.level);
        high = std::fmax(high, point.*panel.level);
      }
    }
    return std::isnan(low) ? level_axis(0, 1, kMostLevelTicks) : level_axis(low, high, kMostLevelTicks);
  }

  void draw_panel(const Panel& panel) {
    const Axis axis = axis_of(panel);
    const double bottom = panel.top + kPanelHeight;
    for (const double tick : axis.ticks()) {
      const double y = y_of(panel, axis, tick);
      svg_ += line(kLeft, y, kRight, y, "class=\"grid\"");
      svg_ += words(kLeft - 8, y + 4.5, number(tick, true), "text-anchor=\"end\"");
    }
    for (const double tick : time_.ticks()) {
      svg_ += line(x_of(tick), panel.top, x_of(tick), bottom, "class=\"grid\"");
      svg_ += line(x_of(tick), bottom, x_of(tick), bottom + 5, "class=\"frame\"");
    }
    const double middle = panel.top + kPanelHeight / 2;
    svg_ +=
        words(24, middle, panel.title, "text-anchor=\"middle\" transform=\"rotate(-90 24 " + number(middle) + ")\"");
    for (const auto& [key, track] : recording_.tracks()) draw_track(panel, axis, style_of(key), track);
    svg_ += "<rect x=\"" + number(kLeft) + "\" y=\"" + number(panel.top) + "\" width=\"" + number(kRight - kLeft) +
            "\" height=\"" + number(kPanelHeight) + "\" class=\"frame\"/>\n";
  }

  static std::string colour_of(const Recording::Key& key) {
    if (!key.second) return "power";
    const bool is_lte = key.second->technology == Technology::kLte;
    return (is_lte ? "lte" : "nr") + std::to_string(key.second->index % (is_lte ? kLteColours : kNrColours));
  }

  static std::string style_of(const Recording::Key& key) {
    return "class=\"track " + colour_of(key) + '"' + kDashes[key.first % kSubscriptions];
  }

  static std::string name_of(const Recording::Key& key) {
    return "sub " + std::to_string(key.first) + ' ' + (key.second ? text_of(*key.second) : "transmit power");
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

  // A dotted line through all panels where the primary carrier has another channel or physical cell id than before.
  void draw_cell_changes(const Recording::Key& key, const Track& track) {
    const TrackPoint* before = nullptr;
    double label_end = 0;
    for (const TrackPoint& point : track) {
      if (!point.channel || !point.pci) continue;
      const TrackPoint* const last = std::exchange(before, &point);
      if (last == nullptr || (last->channel == point.channel && last->pci == point.pci)) continue;
      has_cell_changes_ = true;
      const double x = x_of(seconds_between(start_, point.time));
      svg_ += "<g><title>" + name_of(key) + ": " + cell_text(*last) + ", then " + cell_text(point) + "</title>" +
              line(x, kFirstPanelTop, x, kPanelsBottom,
                   ("stroke-dasharray=\"1 4\" class=\"track " + colour_of(key) + '"').c_str());
      if (x >= label_end) {
        svg_ += words(x + 3, kFirstPanelTop + 12, "PCI " + std::to_string(*point.pci), kNote);
        label_end = x + kCellSpacing;
      }
      svg_ += "</g>\n";
    }
  }

  static std::string cell_text(const TrackPoint& point) {
    return "channel " + std::to_string(*point.channel) + " PCI " + std::to_string(*point.pci);
  }

  void draw_time_labels() {
    for (const double tick : time_.ticks()) {
      svg_ += words(x_of(tick), kPanelsBottom + 20, time_label(time_, tick), "text-anchor=\"middle\"");
    }
    svg_ += words((kLeft + kRight) / 2, kPanelsBottom + 44, "time since the start [" + time_unit(time_) + "]",
                  "text-anchor=\"middle\"");
  }

  // Returns where it ends.
  double draw_legend() {
    double y = kFirstPanelTop + 8;
    const auto add = [this, &y](const std::string& text, const std::string& attributes = kNote) {
      if (text.empty()) return;
      svg_ += words(kLegendLeft + 38, y + 4.5, text, attributes);
      y += kLegendStep;
    };
    for (const auto& [key, track] : recording_.tracks()) {
      svg_ += line(kLegendLeft, y, kLegendLeft + 30, y, style_of(key).c_str());
      add(name_of(key), "");
      add(channels_of(track));
      std::string levels =
          extent_of(track, &TrackPoint::rsrp, " dBm") + extent_of(track, &TrackPoint::tx_power, " dBm");
      if (const std::string snr = extent_of(track, &TrackPoint::snr, " dB"); !snr.empty()) levels += ", " + snr;
      add(levels);
      y += kLegendStep / 2;
    }
    return y;
  }

  // "channel 1300, 6300", in the order of time.
  static std::string channels_of(const Track& track) {
    std::vector<uint32_t> channels;
    for (const TrackPoint& point : track) {
      const bool is_new =
          point.channel && std::find(channels.begin(), channels.end(), *point.channel) == channels.end();
      if (is_new) channels.push_back(*point.channel);
    }
    std::string text;
    for (size_t i = 0; i < std::min(channels.size(), kMostChannels); ++i) {
      text += (i == 0 ? "channel " : ", ") + std::to_string(channels[i]);
    }
    return channels.size() > kMostChannels ? text + ", ..." : text;
  }

  // "-92 to -64 dBm"; empty where nothing was measured.
  static std::string extent_of(const Track& track, double TrackPoint::*level, const char* unit) {
    double low = NAN;
    double high = NAN;
    for (const TrackPoint& point : track) {
      low = std::fmin(low, point.*level);
      high = std::fmax(high, point.*level);
    }
    return std::isnan(low) ? "" : whole_level_text(low) + " to " + whole_level_text(high) + unit;
  }

  const Recording& recording_;
  const std::string& title_;
  bool has_cell_changes_ = false;
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
