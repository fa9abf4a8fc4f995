// The radio of one subscription: the cells in reach, the cell it camps on, and what it measures, at any time.
//
// The phone camps on the strongest cell that it may camp on: any, or one of the cell lock. While LTE is there, further
// LTE carriers are added as far as their cells reach, each with a place of its own, and NR where it is not disabled. A
// sample is a function of the time, the seed, the lock, the NR mode and the attenuation alone.
//
// All numbers of a sample come from the same places and antennas: the serving cell's level is that of the primary
// carrier's strongest chain, ratios follow from the levels of all cells of a frequency, and the transmit power follows
// from the loss to the serving cell. Levels are in dBm, ratios and losses in dB.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "radio/fading.h"
#include "radio/radio_map.h"

namespace pelmar::sim {

// The modem's own time: from 0 at its start, at the pace of the machine's clock, unless it is held.
//
// Everything that changes by itself in the simulated modem is a function of this time, so a modem whose clock is held
// always gives the same values. A restart of the modem does not set its clock back: the phone moves on meanwhile.
class ModemClock {
 public:
  using Time = std::chrono::milliseconds;

  // Held from its start, or from 0 at the pace of the machine's clock.
  explicit ModemClock(std::optional<Time> held = {}) : base_(held.value_or(Time{0})), is_held_(held.has_value()) {}

  Time now() const { return is_held_ ? base_ : base_ + std::chrono::duration_cast<Time>(Clock::now() - base_instant_); }
  bool is_held() const { return is_held_; }

  void hold_at(Time time) {
    base_ = time;
    is_held_ = true;
  }

  // Goes on from the time that it shows.
  void run() {
    base_ = now();
    base_instant_ = Clock::now();
    is_held_ = false;
  }

 private:
  using Clock = std::chrono::steady_clock;

  Time base_;
  Clock::time_point base_instant_ = Clock::now();
  bool is_held_;
};

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

// The levels that a chain shows while it does not measure.
inline constexpr Levels kNotMeasured = {-140, -34, -120, -30};

struct SeenCell {
  const LteSite* site;
  double mean;    // without fading; the phone camps on the cell with the best one, so that it does not change often
  double signal;  // with fading, on a free main antenna
  double others;  // of the frequency's other cells together, in mW
  Levels levels;  // of the strongest chain
};

// A carrier that is not there has nothing but the levels of chains that do not measure.
struct Carrier {
  bool is_there = false;
  uint32_t frequency = 0;         // its EARFCN or NR-ARFCN
  uint16_t physical_cell_id = 0;  // of LTE
  uint16_t measured_chains = 0;   // a bit each
  std::array<Levels, kChains> chains = {kNotMeasured, kNotMeasured, kNotMeasured, kNotMeasured};
  double rsrq = kNotMeasured.rsrq;  // of the strongest chain
};

struct Uplink {
  double path_loss = 0;
  double demanded_power = 0;  // the power that the cell demands
  double max_power = 0;

  double power() const { return demanded_power < max_power ? demanded_power : max_power; }
};

struct RadioSample {
  const Network* network = nullptr;
  SystemMode mode = SystemMode::kNone;
  Antennas antennas;
  double attenuation = 0;  // of all levels

  std::vector<SeenCell> cells;  // of LTE, in the map's order
  const SeenCell* serving() const { return serving_cell ? &cells[*serving_cell] : nullptr; }
  std::optional<size_t> serving_cell;  // its place in cells
  double serving_distance = 0;         // metres
  std::array<Carrier, kLteCarriers> lte;
  std::array<Carrier, kNrCarriers> nr;
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

struct CellOfLock {
  uint16_t physical_cell_id;
  uint32_t earfcn;
};

enum class NrDisableMode : uint32_t { kNone = 0, kAll = 1, kNonStandalone = 2 };

class RadioPicture {
 public:
  RadioPicture(size_t subscription, uint64_t seed) : network_(&network_of(subscription)), seed_(seed) {}

  RadioSample sample(ModemClock::Time time) const;

  // An empty lock allows every cell.
  void lock(std::vector<CellOfLock> cells) { lock_ = std::move(cells); }
  std::span<const CellOfLock> lock() const { return lock_; }

  // attenuation: returns what all levels lose now, in dB.
  void attenuate_by(std::function<double()> attenuation) { attenuation_ = std::move(attenuation); }

  void set_nr_disable_mode(NrDisableMode mode) { nr_disable_mode_ = mode; }
  NrDisableMode nr_disable_mode() const { return nr_disable_mode_; }

  void forget_orders() {
    lock_.clear();
    nr_disable_mode_ = NrDisableMode::kNone;
  }

 private:
  double fading(uint64_t stream, double seconds) const { return fading_at(seconds, seed_, stream); }
  std::vector<SeenCell> measure_cells(const RadioSample& sample, const Place& phone, double seconds) const;
  std::optional<size_t> find_serving_cell(const std::vector<SeenCell>& cells) const;
  void add_nr(RadioSample& sample, const Place& phone, double seconds) const;
  void measure_other_technologies(RadioSample& sample, const Place& phone, double seconds) const;

  const Network* network_;
  uint64_t seed_;
  std::vector<CellOfLock> lock_;
  NrDisableMode nr_disable_mode_ = NrDisableMode::kNone;
  std::function<double()> attenuation_ = [] { return 0.0; };
};

// One for each subscription.
using RadioPictures = std::array<RadioPicture, kSubscriptions>;

}  // namespace pelmar::sim
