#include "radio/smooth_noise.h"

#include <cmath>
#include <numbers>

namespace pelmar::sim {

namespace {

// From 0 to 1.
double fraction(uint64_t word) {
  return static_cast<double>(word >> 11) / static_cast<double>(uint64_t{1} << 53);
}

// The waves' periods in seconds, which vary by up to a half, and their shares.
constexpr struct {
  double period;
  double share;
} kWaves[] = {{31, 0.5}, {13, 0.3}, {5, 0.2}};

}  // namespace

double smooth_noise(uint64_t seed, uint64_t stream, double seconds) {
  uint64_t word = mix(seed, stream);
  double sum = 0;
  for (const auto& wave : kWaves) {
    word = mix(word, 1);
    const double period = wave.period * (1 + 0.5 * fraction(word));
    word = mix(word, 2);
    sum += wave.share * std::sin(2 * std::numbers::pi * (seconds / period + fraction(word)));
  }
  return sum;
}

}  // namespace pelmar::sim
