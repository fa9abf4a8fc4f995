#include "signal/live_view.h"

#include <algorithm>
#include <string_view>

#include "printable_text.h"

namespace pelmar::cli {

namespace {

// --- bars, from left to right, and lines of columns that show a history ---

constexpr size_t kScaleWidth = 11;
constexpr int kEighths = 8;
constexpr const char* kRightwards[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉", "█"};
constexpr const char* kUpwards[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr const char* kAsciiUpwards[] = {" ", ".", ":", "-", "=", "+", "*", "#", "@"};

constexpr LevelRange kRsrpRange = {-125, -65};
constexpr LevelRange kGainRange = {-100, -40};

// A level outside of the range is drawn as its end.
double share(double level, LevelRange range) {
  return std::clamp((level - range.low) / (range.high - range.low), 0.0, 1.0);
}

// `width` columns, in eighths of one or whole ones; no level: blank. A level that is there always shows.
std::string bar(double level, LevelRange range, size_t width, Glyphs glyphs) {
  if (std::isnan(level)) return std::string(width, ' ');
  const size_t parts = glyphs == Glyphs::kBlocks ? kEighths : 1;  // of a column
  const auto count = std::max<size_t>(1, std::lround(share(level, range) * static_cast<double>(width * parts)));
  std::string text;
  for (size_t i = 0; i < count / parts; ++i) text += glyphs == Glyphs::kBlocks ? kRightwards[kEighths] : "#";
  text += kRightwards[count % parts];
  text.append(width - (count + parts - 1) / parts, ' ');
  return text;
}

// The last `width` levels, one column each, scaled to their own range but to no less than `least_span`; blank where
// there is no level. Right-aligned. Before it stand the ends of the scale.
std::string sparkline(std::span<const double> levels, size_t width, double least_span, Glyphs glyphs) {
  levels = levels.last(std::min(width, levels.size()));
  LevelRange range;
  for (const double level : levels) range.add(level);
  const double missing = std::max(0.0, least_span - (range.high - range.low));
  range = {range.low - missing / 2, range.high + missing / 2};
  const std::string scale = whole_level_text(range.low) + ".." + whole_level_text(range.high);
  std::string text = right_aligned(std::isnan(range.low) ? "" : scale, kScaleWidth - 2);
  text.append(1 + width - levels.size(), ' ');
  const auto& upwards = glyphs == Glyphs::kBlocks ? kUpwards : kAsciiUpwards;
  for (const double level : levels) {
    text += std::isnan(level) ? upwards[0] : upwards[1 + std::lround(share(level, range) * (kEighths - 1))];
  }
  return text;
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
constexpr double kMostNumber = 999;       // that the columns have room for
constexpr double kLeastHistorySpan = 12;  // dB: smaller changes look small

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
constexpr size_t kUsualBar = 2;
constexpr size_t kMostBar = 16;
constexpr size_t kLeastHistory = 6;
constexpr size_t kUsualHistory = 18;
constexpr size_t kMostHistory = 100;

// Numbers come first, then where they were measured, then bars, then the history.
Layout layout_of(size_t columns) {
  Layout layout;
  const auto take = [&columns](size_t count) {
    if (count > columns) return false;
    columns -= count;
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

// The length of the colour sequence at the start; 0 where there is none, or not all of it.
size_t colour_sequence(std::string_view text) {
  if (!text.starts_with("\033[")) return 0;
  const size_t end = text.find_first_not_of("0123456789;", 2);
  return end != text.npos && text[end] == 'm' ? end + 1 : 0;
}

// The text's first `columns` columns; colours end with it. An escape that starts no colour sequence is a character.
std::string clip(std::string_view text, size_t columns) {
  std::string clipped;
  bool is_coloured = false;
  while (!text.empty()) {
    const size_t sequence = colour_sequence(text);
    if (sequence == 0 && columns-- == 0) break;
    const auto element = text.substr(0, sequence > 0 ? sequence : std::max<size_t>(utf8_character_bytes(text), 1));
    if (sequence > 0) is_coloured = element != kPlain;
    clipped += element;
    text.remove_prefix(element.size());
  }
  if (is_coloured) clipped += kPlain;
  return clipped;
}

// With too few rows, lines of the largest rank are left out first.
enum Rank { kKeep, kPrimary, kHeading, kSecondary, kGain, kAntennas, kSpace };

struct Line {
  std::string text;
  Rank rank;
};

class View {
 public:
  View(const Shown& shown, const LiveState& state, TerminalSize size, const Style& style)
      : shown_(shown), state_(state), size_(size), style_(style), layout_(layout_of(size.columns)) {}

  std::vector<std::string> lines() {
    add_headings();
    for (const SubscriptionReading& sub : shown_.reading.subs) {
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
    if (!state_.problem.empty()) return clip(coloured(kAlarm, state_.problem), size_.columns);
    std::string text = state_.is_paused ? "PAUSED  " : "";
    if (hidden > 0) text += '(' + std::to_string(hidden) + (hidden == 1 ? " line" : " lines") + " hidden)  ";
    text += local_text(shown_.reading.time).substr(0, 8) + "  " + std::to_string(state_.readings) + " readings, " +
            std::to_string(state_.rate) + " a second  q ends, p pauses, 1 2 arrows  " + state_.modem;
    return clip(coloured(kBold, text), size_.columns);
  }

  void add_headings() {
    std::string text = left_aligned("RSRP dBm", kNameWidth);
    if (layout_.place > 0) text += right_aligned("channel PCI", layout_.place);
    for (size_t i = 0; i < kChains; ++i) text += left_aligned("  rx" + std::to_string(i), chain_width());
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
      lines_.push_back({name_and_place(std::string(row.title) + " rx", "") + chains(row.levels, true), kGain});
    }
    if (const std::string text = antennas_text(sub); !text.empty()) lines_.push_back({"antennas " + text, kAntennas});
  }

  void add_carrier(uint32_t sub, const Carrier& carrier) {
    const std::string place =
        right_aligned(number_text(carrier.channel, "-"), 7) + right_aligned(number_text(carrier.pci, "-"), 4);
    std::string text = name_and_place(text_of(carrier.name), place) + chains(carrier.rsrp, false);
    text += right_aligned(level_text(strongest(carrier.snr)), kSnrWidth);
    if (layout_.history > 0) {
      const auto levels = shown_.history.of(sub, carrier.name);
      const auto shown = levels.first(levels.size() - std::min(levels.size(), state_.hidden_seconds));
      text += ' ' + sparkline(shown, layout_.history, kLeastHistorySpan, style_.glyphs);
    }
    lines_.push_back({text, carrier.name.index == 0 ? kPrimary : kSecondary});
  }

  std::string name_and_place(const std::string& name, const std::string& place) const {
    return left_aligned(name, kNameWidth) + (layout_.place > 0 ? left_aligned(place, layout_.place) : "");
  }

  // Whole dB and a bar for each chain.
  std::string chains(const Levels& levels, bool is_gain) const {
    const LevelRange range = is_gain ? kGainRange : kRsrpRange;
    std::string text;
    for (const double level : levels) {
      text += right_aligned(whole_level_text(std::clamp(level, -kMostNumber, kMostNumber)), kLevelWidth);
      if (layout_.bar == 0) continue;
      text += ' ' + coloured(colour_of(level, is_gain), bar(level, range, layout_.bar, style_.glyphs));
    }
    return text;
  }

  // There is no good or bad receive gain.
  const char* colour_of(double level, bool is_gain) const {
    if (!state_.problem.empty()) return kDim;
    if (is_gain) return kNeutral;
    return level >= kGoodRsrp ? kGood : level >= kFairRsrp ? kFair : kPoor;
  }

  // The headings stay, and one line at least.
  void scroll() {
    if (state_.hidden_rows == 0 || lines_.size() <= 2) return;
    const auto first = lines_.begin() + 1;
    lines_.erase(first, first + static_cast<ptrdiff_t>(std::min(state_.hidden_rows, lines_.size() - 2)));
    lines_.resize(std::min(lines_.size(), std::max<size_t>(size_.rows, 2) - 1));
  }

  // Removes lines until the rest fits below the status. Returns their number.
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

  const Shown& shown_;
  const LiveState& state_;
  const TerminalSize size_;
  const Style style_;
  const Layout layout_;
  std::vector<Line> lines_;
};

}  // namespace

void History::add_gap(Clock::time_point time) {
  if (started_ && time - *started_ < kHistoryColumn) return;
  started_ = started_ && time - *started_ < 2 * kHistoryColumn ? *started_ + kHistoryColumn : time;
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

std::vector<std::string> live_view(const Shown& shown, const LiveState& state, TerminalSize size, const Style& style) {
  return View(shown, state, size, style).lines();
}

}  // namespace pelmar::cli
