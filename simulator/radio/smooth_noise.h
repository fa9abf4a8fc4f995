// Noise that looks random and is smooth in time: the same for the same seed, stream and time, whatever was asked
// before.
#pragma once

#include <cstdint>

namespace pelmar::sim {

// A well mixed number for each (seed, stream).
constexpr uint64_t mix(uint64_t seed, uint64_t stream) {
  uint64_t word = seed + stream * 0x9E3779B97F4A7C15;
  word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9;
  word = (word ^ (word >> 27)) * 0x94D049BB133111EB;
  return word ^ (word >> 31);
}

// From -1 to 1; changes by less than 0.1 in a tenth of a second.
double smooth_noise(uint64_t seed, uint64_t stream, double seconds);

}  // namespace pelmar::sim
