// The fixed part of the radio picture: the places of the phone's course and of the cells.
//
// The phone drives round a closed course; both of its subscriptions are at the same place. Each subscription has a
// network of its own. Places are in metres on a plane.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace pelmar::sim {

inline constexpr size_t kSubscriptions = 2;

struct Place {
  double x;
  double y;
};

struct LteSite {
  uint16_t earfcn;
  uint16_t physical_cell_id;
  uint32_t global_cell_id;
  Place place;
  double power;  // RSRP at 100 m, in dBm
};

// A carrier of NR with the places that it is sent from.
struct NrFrequency {
  uint32_t arfcn;
  double power;  // RSRP at 100 m, in dBm
  std::span<const Place> places;
};

struct Network {
  uint8_t plmn[3];  // as on the air: digits of the country and network code, low half first
  uint16_t tracking_area_code;
  std::span<const LteSite> sites;
  std::span<const NrFrequency> nr_frequencies;  // the primary carrier first
};

const Network& network_of(size_t subscription);

// How long the course takes once round.
inline constexpr double kLapSeconds = 240;

Place place_at(double seconds);

double distance(const Place& a, const Place& b);

// The level in dBm at that distance, from the level at 100 m.
double level_at(double power, double metres);

// LTE's bands below 1 GHz, where the phone has two receive chains only.
constexpr bool is_low_band(uint16_t earfcn) {
  return (earfcn >= 3450 && earfcn < 3800) || (earfcn >= 6150 && earfcn < 6450) || (earfcn >= 9210 && earfcn < 9660);
}

}  // namespace pelmar::sim
