// What one subscription's radio sees and where it camps.
//
// The picture is a fixed table of LTE cells on a few frequencies and an NR carrier beside them. The phone camps on the
// strongest cell that it may camp on: all of them, or those of the cell lock. The NR carrier is an addition to LTE, so
// it is there while the phone camps on a cell and NR is not disabled. Levels are in tenths of dB or dBm.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace pelmar::sim {

struct LteSite {
  uint16_t earfcn;
  uint16_t physical_cell_id;
  uint32_t global_cell_id;
  int16_t rsrp;
  int16_t rsrq;
  int16_t rssi;
};

struct Carrier {
  uint8_t plmn[3];  // as on the air: digits of the country and network code, low half first
  uint16_t tracking_area_code;
  uint32_t timing_advance_us;
  uint32_t nr_arfcn;
  std::span<const LteSite> sites;
};

struct CellOfLock {
  uint16_t physical_cell_id;
  uint32_t earfcn;
};

enum class NrDisableMode : uint32_t { kNone = 0, kAll = 1, kNonStandalone = 2 };

class RadioPicture {
 public:
  static constexpr size_t kSubscriptions = 2;

  explicit RadioPicture(size_t subscription);

  const Carrier& carrier() const { return *carrier_; }

  // Null where the lock leaves no cell.
  const LteSite* serving() const;

  // The sites of a frequency, strongest first, except that the serving one leads.
  std::vector<LteSite> sites_on(uint16_t earfcn) const;
  // The frequencies besides the serving one, in the table's order.
  std::vector<uint16_t> other_frequencies() const;

  bool has_nr() const { return nr_disable_mode_ == NrDisableMode::kNone && serving() != nullptr; }

  // An empty lock allows every cell.
  void lock(std::vector<CellOfLock> cells) { lock_ = std::move(cells); }
  std::span<const CellOfLock> lock() const { return lock_; }

  void set_nr_disable_mode(NrDisableMode mode) { nr_disable_mode_ = mode; }
  NrDisableMode nr_disable_mode() const { return nr_disable_mode_; }

 private:
  bool may_camp_on(const LteSite& site) const;

  const Carrier* carrier_;
  std::vector<CellOfLock> lock_;
  NrDisableMode nr_disable_mode_ = NrDisableMode::kNone;
};

}  // namespace pelmar::sim
