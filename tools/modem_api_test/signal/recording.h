// A recording of readings: rows of a CSV file, one a carrier and reading; the tracks of the carriers over time; and the
// picture that is drawn of them.
#pragma once

#include <istream>
#include <map>
#include <utility>

#include "signal/reading.h"

namespace pelmar::cli {

// Names of the columns, units included, with the line's end.
std::string csv_header();

// A row for each carrier of the reading; empty cells where there is no value. Times are UTC.
std::string csv_rows(const Reading& reading);

// The values of a carrier that are drawn for one time: the levels of its strongest chains, the transmit power of its
// subscription where it is a primary carrier, and its cell.
struct TrackPoint {
  WallClock::time_point time;
  double rsrp;
  double snr;
  double tx_power;
  std::optional<uint32_t> channel;
  std::optional<uint32_t> pci;
};

// In the order of time, also where the wall clock was set back or the rows of a file were not sorted.
using Track = std::vector<TrackPoint>;

using TrackKey = std::pair<uint32_t, CarrierName>;  // subscription and carrier
using Recording = std::map<TrackKey, Track>;

void add_reading(Recording& recording, const Reading& reading);

// Adds the rows of a CSV file, of one subscription where it is named; columns are found by their names. A last line
// that does not end is cut: it is left out, with a remark. Throws a Failure that names the line of a bad row.
void add_csv(Recording& recording, std::istream& stream, const std::string& name,
             std::optional<uint32_t> only_sub = std::nullopt);

// RSRP and SNR of each carrier and the transmit power over time, one above the other, as an SVG document, light or dark
// as the viewer prefers. The recording has at least one track.
std::string plot_svg(const Recording& recording, const std::string& title);

}  // namespace pelmar::cli
