// Readings for tests of what is made of them.
#pragma once

#include <chrono>

#include "modem_hydra.h"
#include "signal/reading.h"

namespace pelmar::cli {

inline constexpr WallClock::time_point kTestTime{std::chrono::milliseconds(1700000000007)};

// All that a reading can have: two LTE carriers of which one measures on two chains, NR, gains and antennas.
inline SubscriptionReading full_subscription(uint32_t sub) {
  SubscriptionReading reading;
  reading.sub = sub;
  reading.mode = MODEM_SYS_MODE_LTE;
  reading.tx_power = -7;
  reading.carriers = {
      {{Technology::kLte, 0},
       1300,
       101,
       {-80.4, -81, -82, -83},
       {-8, -8, -8, -8},
       {-50, -51, -52, -53},
       {23, 22, 21, 20}},
      {{Technology::kLte, 2},
       6300,
       503,
       {-125, -110.5, kNoLevel, kNoLevel},
       kNoLevels,
       kNoLevels,
       {-3, 1, kNoLevel, kNoLevel}},
      {{Technology::kNr, 0},
       {},
       {},
       {-90, -91, -92, -93},
       {-9, kNoLevel, kNoLevel, kNoLevel},
       {-60, -61, -62, -63},
       {15, 14, 13, 12}},
  };
  reading.wcdma_gain = {-70, -71, kNoLevel, kNoLevel};
  reading.rx_antennas = {{0, 1}, {1, 2}, {2, 3}, {3, 0}};
  reading.tx_antennas = {{0, 0}, {2, 2}};
  reading.transmit_switching = TransmitSwitching{4, 2, 2, {0, 1}};
  return reading;
}

inline Reading full_reading() {
  return {kTestTime, {full_subscription(0), full_subscription(1)}};
}

}  // namespace pelmar::cli
