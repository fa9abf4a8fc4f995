#include "radio/fading.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace pelmar::sim {

namespace {

using Time = std::chrono::milliseconds;

// In each spell the simulated hand covers another antenna; the modem switches its antennas some time later.
constexpr Time kSpell{12'000};
constexpr Time kNoticedAfter{3'600};

constexpr double kFading = 2.5;  // dB, at most
constexpr double kHandLoss = 7;  // dB, at most
constexpr double kFreeGains[kAntennas] = {0, -0.6, -2.0, -3.0};

constexpr int64_t kMostSpells = 32;  // that the search for the last switch goes back

// The waves' periods in seconds, which vary by up to a half, and their shares of the fading.
constexpr struct {
  double period;
  double share;
} kWaves[] = {{31, 0.5}, {13, 0.3}, {5, 0.2}};

// A well mixed number for each (seed, stream).
constexpr uint64_t mix(uint64_t seed, uint64_t stream) {
  uint64_t word = seed + stream * 0x9E3779B97F4A7C15;
  word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9;
  word = (word ^ (word >> 27)) * 0x94D049BB133111EB;
  return word ^ (word >> 31);
}

// Returns a number from 0 to 1.
double fraction(uint64_t word) {
  return static_cast<double>(word >> 11) / static_cast<double>(uint64_t{1} << 53);
}

size_t covered_antenna(int64_t spell, uint64_t seed) {
  return mix(seed, 2 * static_cast<uint64_t>(spell)) % kAntennas;
}

// Returns a pseudo-random antenna configuration whose first transmit chain is not on the covered antenna.
uint8_t config_of(int64_t spell, uint64_t seed) {
  if (spell < 0) return 0;
  const uint64_t step = 1 + mix(seed, 2 * static_cast<uint64_t>(spell) + 1) % (kAntennas - 1);
  return static_cast<uint8_t>((covered_antenna(spell, seed) + step) % kAntennas);
}

}  // namespace

Antennas antennas_at(Time time, uint64_t seed) {
  const int64_t spell = time / kSpell;
  const auto into_spell = time % kSpell;
  const double share = static_cast<double>(into_spell.count()) / static_cast<double>(kSpell.count());
  const double wave = std::sin(std::numbers::pi * share);

  Antennas antennas;
  std::copy(std::begin(kFreeGains), std::end(kFreeGains), antennas.gains.begin());
  antennas.gains[covered_antenna(spell, seed)] -= kHandLoss * wave * wave;

  int64_t last = into_spell < kNoticedAfter ? spell - 1 : spell;
  antennas.config = config_of(last, seed);
  const int64_t oldest = std::max<int64_t>(last - kMostSpells, 0);
  while (last > oldest && config_of(last - 1, seed) == antennas.config) --last;
  antennas.previous_config = config_of(last - 1, seed);
  antennas.switched_at = std::max<int64_t>(last, 0) * kSpell + kNoticedAfter;
  if (antennas.switched_at > time) antennas.switched_at = Time{0};
  return antennas;
}

double fading_at(double seconds, uint64_t seed, uint64_t stream) {
  uint64_t word = mix(seed, stream);
  double sum = 0;
  for (const auto& wave : kWaves) {
    word = mix(word, 1);
    const double period = wave.period * (1 + 0.5 * fraction(word));
    word = mix(word, 2);
    sum += wave.share * std::sin(2 * std::numbers::pi * (seconds / period + fraction(word)));
  }
  return kFading * sum;
}

}  // namespace pelmar::sim
