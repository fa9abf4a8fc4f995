#include "signal/bars.h"

#include <algorithm>
#include <cmath>

namespace pelmar::cli {

namespace {

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
  std::string text(width - levels.size(), ' ');
  const auto& upwards = glyphs == Glyphs::kBlocks ? kUpwards : kAsciiUpwards;
  for (const double level : levels) {
    text += std::isnan(level) ? upwards[0] : upwards[1 + std::lround(share(level, range) * (kEighths - 1))];
  }
  return text;
}

}  // namespace pelmar::cli
