// Readings through the library's hydra functions.
#pragma once

#include <cstdint>
#include <span>

#include "signal/reading.h"

namespace pelmar::cli {

// The modem's levels are 32-bit words that count tenths of dB or dBm.
constexpr double decibels(int32_t word) {
  return word / 10.0;
}

// Reads every value that the modem has. Hydra is open; each value is one command.
Reading read_signal(std::span<const uint32_t> subs);

}  // namespace pelmar::cli
