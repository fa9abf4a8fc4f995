#include "signal/live_view.h"

#include <algorithm>
#include <cmath>

namespace pelmar::cli {

namespace {

// --- bars ---

constexpr int kEighths = 8;
constexpr const char* kRightwards[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉", "█"};
constexpr const char* kUpwards[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr const char* kAsciiUpwards[] = {" ", ".", ":", "-", "=", "+", "*", "#", "@"};

double share(double level, LevelRange range) {
  return std::clamp((level - range.low) / (range.high - range.low), 0.0, 1.0);
}

// The levels' own range, widened around its middle to the least span.
LevelRange range_of(std::span<const double> levels, double least_span) {
  double low = NAN;
  double high = NAN;
  for (const double level : levels) {
    low = std::fmin(low, level);
    high = std::fmax(high, level);
  }
  const double missing = std::max(0.0, least_span - (high - low));
  return {low - missing / 2, high + missing / 2};
}

// --- the view ---

constexpr std::chrono::seconds kHistoryColumn{1};

constexpr const char* kPlain = "\033[0m";
constexpr const char* kBold = "\033[1m";
constexpr const char* kDim = "\033[2m";
constexpr const char* kAlarm = "\033[1;31m";
constexpr const char* kGood = "\033[32m";
constexpr const char* kFair = "\033[33m";
constexpr const char* kPoor = "\033[31m";
constexpr const char* kNeutral = "\033[36m";

constexpr double kGoodRsrp = -95;
constexpr double kFairRsrp = -110;
constexpr double kLeastNumber = -999;  // that the columns have room for
constexpr double kMostNumber = 999;
constexpr double kLeastHistorySpan = 12;  // dB: smaller changes look small

const char* rsrp_colour(double level) {
  if (level >= kGoodRsrp) return kGood;
  return level >= kFairRsrp ? kFair : kPoor;
}

// How the bars of one measure are drawn. There is no good or bad receive gain.
struct Bars {
  LevelRange range;
  bool is_gain;
};

constexpr Bars kRsrpBars = {kRsrpRange, false};
constexpr Bars kGainBars = {kRssiRange, true};

// Widths of the columns; 0: the column is left out.
struct Layout {
  size_t place = 0;  // channel and PCI
  size_t bar = 0;
  size_t history = 0;
};

constexpr size_t kNameWidth = 9;
constexpr size_t kPlaceWidth = 11;
constexpr size_t kLevelWidth = 5;
constexpr size_t kSnrWidth = 7;
constexpr size_t kScaleWidth = 11;
constexpr size_t kUsualBar = 2;
constexpr size_t kMostBar = 16;
constexpr size_t kLeastHistory = 6;
constexpr size_t kUsualHistory = 18;
constexpr size_t kMostHistory = 100;

// Numbers come first, then where they were measured, then bars, then the history.
Layout layout_of(size_t columns) {
  Layout layout;
  size_t left = columns;
  const auto take = [&left](size_t count) {
    if (count > left) return false;
    left -= count;
    return true;
  };
  if (!take(kNameWidth + kChains * kLevelWidth + kSnrWidth)) return layout;
  if (take(kPlaceWidth)) layout.place = kPlaceWidth;
  while (layout.bar < kUsualBar && take(kChains * (layout.bar == 0 ? 2 : 1))) ++layout.bar;
  if (layout.bar == kUsualBar && take(kScaleWidth + kLeastHistory)) layout.history = kLeastHistory;
  if (layout.history == 0) return layout;
  while (layout.history < kUsualHistory && take(1)) ++layout.history;
  while (layout.bar < kMostBar && take(kChains)) ++layout.bar;
  while (layout.history < kMostHistory && take(1)) ++layout.history;
  return layout;
}

template <typename Number>
std::string text_or_dash(const std::optional<Number>& value) {
  return value ? std::to_string(*value) : "-";
}

// What a line is worth when there are too few rows: the largest goes first.
enum Rank { kKeep, kPrimary, kHeading, kSecondary, kGain, kAntennas, kSpace };

struct Line {
  std::string text;
  Rank rank;
};

class View {
 public:
  View(const Reading& reading, const History& history, const LiveState& state, TerminalSize size, const Style& style)
      : reading_(reading),
        history_(history),
        state_(state),
        size_(size),
        style_(style),
        layout_(layout_of(size.columns)) {}

  std::vector<std::string> lines() {
    add_headings();
    for (const SubscriptionReading& sub : reading_.subs) {
      if (state_.only_sub.value_or(sub.sub) == sub.sub) add_subscription(sub);
    }
    scroll();
    const size_t hidden = hide_surplus();
    std::vector<std::string> lines = {status(hidden)};
    for (const Line& line : lines_) lines.push_back(clip(line.text, size_.columns));
    return lines;
  }

 private:
  std::string coloured(const char* colour, const std::string& text) const {
    return style_.with_colour ? colour + text + kPlain : text;
  }

  std::string status(size_t hidden) const {
    if (!state_.trouble.empty()) return clip(coloured(kAlarm, state_.trouble), size_.columns);
    std::string text = state_.is_paused ? "PAUSED  " : "";
    if (hidden > 0) text += '(' + std::to_string(hidden) + (hidden == 1 ? " line" : " lines") + " hidden)  ";
    text += local_text(reading_.time).substr(0, 8) + "  " + std::to_string(state_.readings) + " readings, " +
            std::to_string(state_.rate) + " a second  q ends, p pauses, 1 2 arrows  " + state_.modem;
    return clip(coloured(kBold, text), size_.columns);
  }

  void add_headings() {
    std::string text = left_aligned("RSRP dBm", kNameWidth);
    if (layout_.place > 0) text += right_aligned("channel PCI", layout_.place);
    for (size_t chain = 0; chain < kChains; ++chain) {
      text += left_aligned("  rx" + std::to_string(chain), chain_width());
    }
    text += right_aligned("SNR dB", kSnrWidth);
    const size_t back = state_.hidden_seconds;
    const std::string seconds = std::to_string(back > 0 ? back : layout_.history) + (back > 0 ? " s ago" : " s");
    if (layout_.history > 0) text += "  RSRP dBm, " + seconds;
    lines_.push_back({text, kHeading});
  }

  size_t chain_width() const { return kLevelWidth + (layout_.bar > 0 ? layout_.bar + 1 : 0); }

  void add_subscription(const SubscriptionReading& sub) {
    if (lines_.size() > 1) lines_.push_back({"", kSpace});
    lines_.push_back({coloured(kBold, "subscription " + std::to_string(sub.sub) + ": " + state_text(sub)), kKeep});
    if (sub.carriers.empty()) lines_.push_back({"no carrier", kPrimary});
    for (const Carrier& carrier : sub.carriers) add_carrier(sub.sub, carrier);
    for (const GainRow& row : gain_rows(sub)) {
      lines_.push_back({name_and_place(std::string(row.title) + " rx", "") + chains(row.levels, kGainBars), kGain});
    }
    if (const std::string text = antennas_text(sub); !text.empty()) lines_.push_back({"antennas " + text, kAntennas});
  }

  void add_carrier(uint32_t sub, const Carrier& carrier) {
    const std::string place =
        right_aligned(text_or_dash(carrier.channel), 7) + right_aligned(text_or_dash(carrier.pci), 4);
    std::string text = name_and_place(text_of(carrier.name), place) + chains(carrier.rsrp, kRsrpBars);
    text += right_aligned(level_text(strongest(carrier.snr)), kSnrWidth);
    if (layout_.history > 0) {
      const auto levels = history_.of(sub, carrier.name);
      const auto shown = levels.first(levels.size() - std::min(levels.size(), state_.hidden_seconds));
      text += ' ' + sparkline(shown, layout_.history, kLeastHistorySpan, style_.glyphs);
    }
    lines_.push_back({text, carrier.name.index == 0 ? kPrimary : kSecondary});
  }

  std::string name_and_place(const std::string& name, const std::string& place) const {
    return left_aligned(name, kNameWidth) + (layout_.place > 0 ? left_aligned(place, layout_.place) : "");
  }

  // Whole dB and a bar for each chain.
  std::string chains(const Levels& levels, const Bars& bars) const {
    std::string text;
    for (const double level : levels) {
      text += right_aligned(whole_level_text(std::clamp(level, kLeastNumber, kMostNumber)), kLevelWidth);
      if (layout_.bar > 0)
        text += ' ' + coloured(colour_of(level, bars), bar(level, bars.range, layout_.bar, style_.glyphs));
    }
    return text;
  }

  const char* colour_of(double level, const Bars& bars) const {
    if (!state_.trouble.empty()) return kDim;
    return bars.is_gain ? kNeutral : rsrp_colour(level);
  }

  // The headings stay, and one line at least.
  void scroll() {
    if (state_.hidden_rows == 0 || lines_.size() <= 2) return;
    const auto first = lines_.begin() + 1;
    lines_.erase(first, first + static_cast<ptrdiff_t>(std::min(state_.hidden_rows, lines_.size() - 2)));
    lines_.resize(std::min(lines_.size(), std::max<size_t>(size_.rows, 2) - 1));
  }

  // Until the lines and the status fit. Returns how many went.
  size_t hide_surplus() {
    size_t hidden = 0;
    const size_t most = std::max<size_t>(size_.rows, 1) - 1;
    while (lines_.size() > most) {
      const auto least = std::max_element(lines_.rbegin(), lines_.rend(),
                                          [](const Line& a, const Line& b) { return a.rank < b.rank; });
      hidden += least->rank == kSpace ? 0 : 1;
      lines_.erase(std::next(least).base());
    }
    return hidden;
  }

  const Reading& reading_;
  const History& history_;
  const LiveState& state_;
  const TerminalSize size_;
  const Style style_;
  const Layout layout_;
  std::vector<Line> lines_;
};

// The length of the colour sequence at the start; 0 where there is none, or not all of it.
size_t colour_sequence(std::string_view text) {
  if (!text.starts_with("\033[")) return 0;
  const size_t end = text.find_first_not_of("0123456789;", 2);
  return end != text.npos && text[end] == 'm' ? end + 1 : 0;
}

// The length of the character or colour sequence at the start, never 0; `columns` becomes what it takes on the screen.
size_t next_element(std::string_view text, size_t& columns) {
  columns = 0;
  if (const size_t sequence = colour_sequence(text); sequence > 0) return sequence;
  columns = 1;
  size_t length = 1;
  while (length < text.size() && (static_cast<uint8_t>(text[length]) & 0xC0) == 0x80) ++length;
  return length;
}

}  // namespace

Glyphs glyphs_of(std::string_view codeset) {
  return codeset == "UTF-8" ? Glyphs::kBlocks : Glyphs::kAscii;
}

std::string bar(double level, LevelRange range, size_t width, Glyphs glyphs) {
  if (std::isnan(level)) return std::string(width, ' ');
  if (glyphs == Glyphs::kAscii) {
    const auto columns = std::max<size_t>(1, std::lround(share(level, range) * static_cast<double>(width)));
    return std::string(columns, '#') + std::string(width - columns, ' ');
  }
  const auto eighths = std::max<size_t>(1, std::lround(share(level, range) * static_cast<double>(width * kEighths)));
  std::string text;
  for (size_t i = 0; i < eighths / kEighths; ++i) text += kRightwards[kEighths];
  text += kRightwards[eighths % kEighths];
  text.append(width - (eighths + kEighths - 1) / kEighths, ' ');
  return text;
}

std::string sparkline(std::span<const double> levels, size_t width, double least_span, Glyphs glyphs) {
  levels = levels.last(std::min(width, levels.size()));
  const LevelRange range = range_of(levels, least_span);
  const std::string scale = whole_level_text(range.low) + ".." + whole_level_text(range.high);
  std::string text = right_aligned(std::isnan(range.low) ? "" : scale, kScaleWidth - 2);
  text.append(1 + width - levels.size(), ' ');
  const auto& upwards = glyphs == Glyphs::kBlocks ? kUpwards : kAsciiUpwards;
  for (const double level : levels) {
    text += std::isnan(level) ? upwards[0] : upwards[1 + std::lround(share(level, range) * (kEighths - 1))];
  }
  return text;
}

// --- history ---

void History::add_gap(Clock::time_point time) {
  if (is_started_ && time - started_ < kHistoryColumn) return;
  started_ = is_started_ && time - started_ < 2 * kHistoryColumn ? started_ + kHistoryColumn : time;
  is_started_ = true;
  for (auto& [key, levels] : levels_) {
    if (levels.size() == kMostColumns) levels.erase(levels.begin());
    levels.push_back(kNoLevel);
  }
}

void History::add(const Reading& reading, Clock::time_point time) {
  add_gap(time);
  for (const SubscriptionReading& sub : reading.subs) {
    for (const Carrier& carrier : sub.carriers) {
      std::vector<double>& levels = levels_[{sub.sub, carrier.name}];
      if (levels.empty()) levels.push_back(kNoLevel);
      levels.back() = strongest(carrier.rsrp);
    }
  }
}

std::span<const double> History::of(uint32_t sub, const CarrierName& carrier) const {
  const auto found = levels_.find({sub, carrier});
  if (found == levels_.end()) return {};
  return found->second;
}

// --- the view ---

size_t display_width(std::string_view text) {
  size_t width = 0;
  while (!text.empty()) {
    size_t columns = 0;
    text.remove_prefix(next_element(text, columns));
    width += columns;
  }
  return width;
}

std::string clip(std::string_view text, size_t columns) {
  std::string clipped;
  bool is_coloured = false;
  while (!text.empty()) {
    size_t taken = 0;
    const size_t length = next_element(text, taken);
    if (taken > columns) break;
    const std::string_view element = text.substr(0, length);
    if (taken == 0) is_coloured = element != kPlain;
    clipped += element;
    columns -= taken;
    text.remove_prefix(length);
  }
  if (is_coloured) clipped += kPlain;
  return clipped;
}

std::vector<std::string> live_view(const Reading& reading, const History& history, const LiveState& state,
                                   TerminalSize size, const Style& style) {
  return View(reading, history, state, size, style).lines();
}

}  // namespace pelmar::cli
