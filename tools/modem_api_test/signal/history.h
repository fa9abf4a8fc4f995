// The last seconds of each carrier, for the history lines of the live view: a column a second, which shows the last
// level that was read in it.
#pragma once

#include <map>
#include <span>
#include <utility>
#include <vector>

#include "signal/reading.h"

namespace pelmar::cli {

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
  bool is_started_ = false;
  Clock::time_point started_;  // the present column
  std::map<std::pair<uint32_t, CarrierName>, std::vector<double>> levels_;
};

}  // namespace pelmar::cli
