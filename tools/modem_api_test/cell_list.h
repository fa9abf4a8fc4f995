// LTE and NR cells as the commands read and write them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "json_fwd.h"

namespace pelmar::cli {

struct Cell {
  uint32_t earfcn;
  uint32_t pci;
};

// "EARFCN:PCI" words; the single word "clear" gives none. Throws a usage Failure for anything else.
std::vector<Cell> parse_cells(const std::vector<std::string>& words);

// What modem_api_get_cell_info() fills; what the modem does not report is 0.
struct CellInfo {
  static constexpr size_t kCells = 8;
  static constexpr size_t kFrequencies = 3;

  std::array<uint16_t, kCells> intra_pci{};
  std::array<uint16_t, kFrequencies> inter_earfcn{};
  std::array<uint16_t, kFrequencies * kCells> inter_pci{};
  uint8_t timing_advance_valid = 0;
  uint32_t timing_advance = 0;
  uint8_t nr_arfcn_valid = 0;
  uint32_t nr_arfcn = 0;

  // Nothing also where the modem reports it as not available.
  std::optional<uint32_t> known_timing_advance() const;
  bool is_empty() const;
  Json json() const;
  std::string text() const;
};

// "64 frames"; empty for a setting without a cycle.
std::string drx_cycle(uint32_t drx);

}  // namespace pelmar::cli
