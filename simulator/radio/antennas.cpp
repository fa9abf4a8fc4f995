#include "radio/antennas.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "radio/smooth_noise.h"

namespace pelmar::sim {

namespace {

using Time = ModemClock::Time;

// The hand covers another antenna in each spell; the switch follows when it is noticed.
constexpr Time kSpell{12'000};
constexpr Time kNoticedAfter{3'600};

constexpr double kHandLoss = 7;  // dB, at most
constexpr double kFreeGains[kAntennas] = {0, -0.6, -2.0, -3.0};

constexpr int64_t kLongestMemory = 32;  // spells that the search for the last switch goes back

size_t covered_antenna(int64_t spell, uint64_t seed) {
  return mix(seed, 2 * static_cast<uint64_t>(spell)) % kAntennas;
}

// Any that has the first transmit chain on another antenna than the covered one.
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
  const int64_t oldest = std::max<int64_t>(last - kLongestMemory, 0);
  while (last > oldest && config_of(last - 1, seed) == antennas.config) --last;
  antennas.previous_config = config_of(last - 1, seed);
  antennas.switched_at = std::max<int64_t>(last, 0) * kSpell + kNoticedAfter;
  if (antennas.switched_at > time) antennas.switched_at = Time{0};
  return antennas;
}

}  // namespace pelmar::sim
