// The picture of `signal --watch`: lines that fit a terminal of any size, from the last reading and the history of each
// carrier.
#pragma once

#include <map>
#include <utility>

#include "signal/reading.h"

namespace pelmar::cli {

// The last seconds of each carrier: a column a second, which shows the last level that was read in it.
class History {
 public:
  static constexpr size_t kMostColumns = 240;

  // Takes the RSRP of each carrier's strongest chain. Columns go by the steady clock: the reading's own time jumps
  // where the wall clock is set.
  void add(const Reading& reading, Clock::time_point time);

  // A reading that did not come: the columns move on, and stay empty.
  void add_gap(Clock::time_point time);

  // Oldest first, up to the present second; no level where the carrier was not there. Empty for one that never was.
  std::span<const double> of(uint32_t sub, const CarrierName& carrier) const;

 private:
  std::optional<Clock::time_point> started_;  // the present column
  std::map<std::pair<uint32_t, CarrierName>, std::vector<double>> levels_;
};

struct Shown {
  Reading reading;
  History history;
};

struct TerminalSize {
  size_t columns = 80;
  size_t rows = 24;
};

struct LiveState {
  std::string modem;    // its socket
  std::string problem;  // why there is no reading now; empty: there is
  size_t readings = 0;
  uint32_t rate = 0;
  bool is_paused = false;
  std::optional<uint32_t> only_sub = std::nullopt;
  size_t hidden_rows = 0;     // scrolled down; if not 0, no line is left out for its rank
  size_t hidden_seconds = 0;  // of the history, scrolled back
};

// kBlocks: Unicode block characters; kAscii: for terminals without UTF-8.
enum class Glyphs { kBlocks, kAscii };

struct Style {
  bool with_colour = false;
  Glyphs glyphs = Glyphs::kBlocks;
};

// Lines that fit the terminal. With too few rows, the lines of the largest rank are left out, and the first line shows
// their number. Below a problem the last reading stays; in colour, its bars are dimmed.
std::vector<std::string> live_view(const Shown& shown, const LiveState& state, TerminalSize size, const Style& style);

}  // namespace pelmar::cli
