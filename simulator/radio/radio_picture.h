// What one subscription's radio sees and where it camps, at any time.
//
// The phone camps on the strongest cell that it may camp on: all of them, or those of the cell lock. While LTE is there
// further LTE carriers are added as far as their cells reach, each with a place of its own, and NR where it is not
// disabled. What is measured is a function of the time, the seed, the lock and the NR mode alone.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "radio/radio_sample.h"

namespace pelmar::sim {

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

  void set_nr_disable_mode(NrDisableMode mode) { nr_disable_mode_ = mode; }
  NrDisableMode nr_disable_mode() const { return nr_disable_mode_; }

  void forget_orders() {
    lock_.clear();
    nr_disable_mode_ = NrDisableMode::kNone;
  }

 private:
  bool may_camp_on(const LteSite& site) const;
  std::vector<SeenCell> measure_cells(const Place& phone, double seconds, const Antennas& antennas) const;
  std::optional<size_t> find_serving_cell(const std::vector<SeenCell>& cells) const;
  void add_nr(RadioSample& sample, const Place& phone, double seconds) const;
  void measure_other_technologies(RadioSample& sample, const Place& phone, double seconds) const;

  const Network* network_;
  uint64_t seed_;
  std::vector<CellOfLock> lock_;
  NrDisableMode nr_disable_mode_ = NrDisableMode::kNone;
};

// One a subscription.
using RadioPictures = std::array<RadioPicture, kSubscriptions>;

}  // namespace pelmar::sim
