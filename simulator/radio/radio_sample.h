// What one subscription's radio measures at one moment. All of it comes from the same places and antennas, so it fits
// together: the serving cell's level is that of the primary carrier's strongest chain, ratios follow from the levels of
// all cells of a frequency, and the transmit power from the loss to the serving cell.
//
// Levels are in dBm, ratios and losses in dB.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "radio/antennas.h"
#include "radio/radio_map.h"

namespace pelmar::sim {

inline constexpr size_t kLteCarriers = 7;  // a primary one and up to six more
inline constexpr size_t kNrCarriers = 3;

// The system modes: which technology carries the subscription's data.
enum class SystemMode : uint32_t { kNone = 0, kLte = 9, kNr = 12 };

struct Levels {
  double rsrp;
  double rsrq;
  double rssi;
  double snr;
};

// What a chain shows that does not measure.
inline constexpr Levels kNotMeasured = {-140, -34, -120, -30};

struct SeenCell {
  const LteSite* site;
  double mean;    // by distance alone: what decides where the phone camps, so that it does not waver
  double signal;  // with fading, on a free main antenna
  double others;  // of the frequency's other cells together, in mW
  Levels levels;  // of the strongest chain
};

// A carrier that is not there has nothing but the levels of chains that do not measure.
struct LteCarrier {
  bool is_there = false;
  uint32_t earfcn = 0;
  uint16_t physical_cell_id = 0;
  uint16_t measured_chains = 0;  // a bit each
  std::array<Levels, kChains> chains = {kNotMeasured, kNotMeasured, kNotMeasured, kNotMeasured};
};

struct NrCarrier {
  bool is_there = false;
  uint32_t arfcn = 0;
  std::array<Levels, kChains> chains = {kNotMeasured, kNotMeasured, kNotMeasured, kNotMeasured};
  double rsrq = kNotMeasured.rsrq;  // of the strongest chain
};

struct Uplink {
  double path_loss = 0;
  double demanded_power = 0;  // what the cell asks for
  double max_power = 0;

  double power() const { return demanded_power < max_power ? demanded_power : max_power; }
};

struct RadioSample {
  const Network* network = nullptr;
  SystemMode mode = SystemMode::kNone;
  Antennas antennas;

  std::vector<SeenCell> cells;  // of LTE, in the map's order
  const SeenCell* serving() const { return serving_cell ? &cells[*serving_cell] : nullptr; }
  std::optional<size_t> serving_cell;  // its place in cells
  double serving_distance = 0;         // metres
  std::array<LteCarrier, kLteCarriers> lte;
  std::array<NrCarrier, kNrCarriers> nr;
  Uplink lte_uplink;
  Uplink nr_uplink;
  std::array<double, 2> wcdma_levels{};  // of the strongest neighbour, on the first two chains
  std::array<double, 2> gsm_levels{};

  bool has_nr() const { return nr[0].is_there; }

  // The cells of a frequency, strongest first, except that the serving one leads.
  std::vector<SeenCell> cells_on(uint16_t earfcn) const;
  // The frequencies besides the serving one, in the map's order.
  std::vector<uint16_t> other_frequencies() const;
};

}  // namespace pelmar::sim
