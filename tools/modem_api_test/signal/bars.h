// Levels drawn with characters: bars from left to right, and lines of columns that show a history.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace pelmar::cli {

// The range that a drawing shows; what is outside is drawn as its end.
struct LevelRange {
  double low;
  double high;
};

inline constexpr LevelRange kRsrpRange = {-125, -65};
inline constexpr LevelRange kRssiRange = {-100, -40};

// What a drawing is made of: parts of blocks, or what every terminal has.
enum class Glyphs { kBlocks, kAscii };

// What a character set has, by its name as the C library tells it.
Glyphs glyphs_of(std::string_view codeset);

// `width` columns, in eighths of one or whole ones; no level: blank. A level that is there always shows.
std::string bar(double level, LevelRange range, size_t width, Glyphs glyphs);

// The last `width` levels, one column each, scaled to their own range but to no less than `least_span`; blank where
// there is no level. Right-aligned.
std::string sparkline(std::span<const double> levels, size_t width, double least_span, Glyphs glyphs);

}  // namespace pelmar::cli
