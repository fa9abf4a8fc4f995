// The phone's four antennas: a hand that covers one of them for a while, and the switch that moves the transmitter away
// from it.
//
// A configuration c connects receive chain i to antenna (i + c) mod 4; the first transmit chain shares the antenna of
// receive chain 0, the second one that of chain 2.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "modem_clock.h"

namespace pelmar::sim {

inline constexpr size_t kAntennas = 4;
inline constexpr size_t kChains = 4;

struct Antennas {
  std::array<double, kAntennas> gains{};  // dB, against a free main antenna; never above 0
  uint8_t config = 0;
  uint8_t previous_config = 0;
  ModemClock::Time switched_at{0};

  static uint8_t of_chain(size_t chain, uint8_t config) { return static_cast<uint8_t>((chain + config) % kAntennas); }
  static uint8_t of_transmitter(size_t chain, uint8_t config) { return of_chain(2 * chain, config); }

  double gain_of_chain(size_t chain) const { return gains[of_chain(chain, config)]; }
};

Antennas antennas_at(ModemClock::Time time, uint64_t seed);

}  // namespace pelmar::sim
