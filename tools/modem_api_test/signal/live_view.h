// The picture of `signal --watch`: lines that fit a terminal of any size, from the last reading and the history.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "signal/bars.h"
#include "signal/history.h"
#include "signal/reading.h"

namespace pelmar::cli {

struct TerminalSize {
  size_t columns = 80;
  size_t rows = 24;
};

struct LiveState {
  std::string modem;    // its socket
  std::string trouble;  // why there is no reading now; empty: there is
  size_t readings = 0;
  uint32_t rate = 0;
};

struct Style {
  bool with_colour = false;
  Glyphs glyphs = Glyphs::kBlocks;
};

// None is wider than the terminal, and there are no more than it has rows: what matters least is left out, and counted
// in the first line. A reading that is out of date stays below the trouble; in colour, its bars are dimmed.
std::vector<std::string> live_view(const Reading& reading, const History& history, const LiveState& state,
                                   TerminalSize size, const Style& style);

// Columns that the text takes: characters, without colour sequences. An escape that starts none is a character.
size_t display_width(std::string_view text);

// The text's first `columns` columns; colours end with it.
std::string clip(std::string_view text, size_t columns);

}  // namespace pelmar::cli
