// The changes of a phone's reception over time, besides its place: fading, and a hand that covers one of its antennas.
//
// Both look random and depend on the seed and the time alone.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace pelmar::sim {

inline constexpr size_t kAntennas = 4;
inline constexpr size_t kChains = 4;

// The phone's antennas and the switch that moves the transmitter away from the covered one.
//
// A configuration c connects receive chain i to antenna (i + c) mod 4; the first transmit chain shares the antenna of
// receive chain 0, the second one that of chain 2.
struct Antennas {
  std::array<double, kAntennas> gains{};  // dB, against a free main antenna; never above 0
  uint8_t config = 0;
  uint8_t previous_config = 0;
  std::chrono::milliseconds switched_at{0};

  static uint8_t of_chain(size_t chain, uint8_t config) { return static_cast<uint8_t>((chain + config) % kAntennas); }
  static uint8_t of_transmitter(size_t chain, uint8_t config) { return of_chain(2 * chain, config); }

  double gain_of_chain(size_t chain) const { return gains[of_chain(chain, config)]; }
};

Antennas antennas_at(std::chrono::milliseconds time, uint64_t seed);

// In dB, from -2.5 to 2.5; changes by less than 0.25 in a tenth of a second. Each stream has its own.
double fading_at(double seconds, uint64_t seed, uint64_t stream);

}  // namespace pelmar::sim
