// One reading of the radio of the subscriptions, as every form of output takes it: plain data.
//
// Levels are in dB or dBm, one a receive chain. What the modem did not measure is not a number.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "text.h"

namespace pelmar::cli {

inline constexpr uint32_t kSubscriptions = 2;
inline constexpr size_t kChains = 4;
inline constexpr double kNoLevel = std::numeric_limits<double>::quiet_NaN();

using Levels = std::array<double, kChains>;
inline constexpr Levels kNoLevels = {kNoLevel, kNoLevel, kNoLevel, kNoLevel};

// The level of the strongest chain; no level where none measured.
double strongest(const Levels& levels);

// The lowest and the highest level that were added; no level before the first.
struct LevelRange {
  double low = kNoLevel;
  double high = kNoLevel;

  void add(double level) {
    low = std::fmin(low, level);
    high = std::fmax(high, level);
  }
};

enum class Technology { kLte, kNr };

// Which carrier of a subscription: 0 is the primary one, others count the secondary ones.
struct CarrierName {
  Technology technology = Technology::kLte;
  uint32_t index = 0;

  auto operator<=>(const CarrierName&) const = default;  // NOLINT(modernize-use-nullptr): it sees its own expansion
};

std::string text_of(const CarrierName& name);  // "LTE pcc", "NR scc1", for people
std::string word_of(const CarrierName& name);  // "lte_pcc", "nr_scc1", for scripts
std::optional<CarrierName> carrier_of_word(const std::string& word);

struct Carrier {
  CarrierName name;
  std::optional<uint32_t> channel;
  std::optional<uint32_t> pci;
  Levels rsrp = kNoLevels;
  Levels rsrq = kNoLevels;  // NR reports one for all chains: the first
  Levels rssi = kNoLevels;
  Levels snr = kNoLevels;
};

// A quantity that is measured of a carrier: its name and unit for scripts, both for people, and its place.
struct Measure {
  const char* word;
  const char* unit;
  const char* title;
  Levels Carrier::*levels;
};

inline constexpr Measure kMeasures[] = {
    {"rsrp", "dbm", "RSRP dBm", &Carrier::rsrp},
    {"rsrq", "db", "RSRQ dB", &Carrier::rsrq},
    {"rssi", "dbm", "RSSI dBm", &Carrier::rssi},
    {"snr", "db", "SNR dB", &Carrier::snr},
};

// Antennas of a chain before and after the last switch.
struct AntennaSwitch {
  uint32_t before = 0;
  uint32_t now = 0;
};

// The antenna switching of the transmit resource manager.
struct TransmitSwitching {
  uint32_t antennas = 0;
  uint32_t switch_path = 0;
  uint32_t signal_path = 0;
  AntennaSwitch configuration;
};

struct SubscriptionReading {
  uint32_t sub = 0;
  std::optional<uint32_t> mode;     // MODEM_SYS_MODE_*, or another number
  std::optional<int32_t> tx_power;  // dBm
  std::vector<Carrier> carriers;
  Levels wcdma_gain = kNoLevels;
  Levels gsm_gain = kNoLevels;
  std::vector<AntennaSwitch> rx_antennas;  // of NR; by chain
  std::vector<AntennaSwitch> tx_antennas;
  std::optional<TransmitSwitching> transmit_switching;

  // Whether the modem had any value.
  bool has_values() const { return mode || !carriers.empty() || !rx_antennas.empty() || transmit_switching; }
};

struct Reading {
  WallClock::time_point time;
  std::vector<SubscriptionReading> subs;
};

// "LTE", "NR", "mode 5"; "no mode".
std::string mode_text(const std::optional<uint32_t>& mode);

// "-84.5"; "-" for no level.
std::string level_text(double level);
std::string whole_level_text(double level);  // "-85"

// The number, or `otherwise` where there is none.
template <typename Number>
std::string number_text(const std::optional<Number>& value, const char* otherwise) {
  return value ? std::to_string(*value) : otherwise;
}

// The receive gain by technology, where chains have one: what NR's carrier has as RSSI, and what the others measure.
struct GainRow {
  const char* title;
  const char* word;
  Levels levels;
};
std::vector<GainRow> gain_rows(const SubscriptionReading& reading);

// Reads every value that the modem has, through the library's hydra functions. Hydra is open; each value is one
// command.
Reading read_signal(std::span<const uint32_t> subs);

// --- a reading as text: for people who read it once, in a log or on paper, and as a JSON document for scripts ---

std::string reading_text(const Reading& reading);

// One line a subscription, as the heading explains it.
inline constexpr const char* kReadingLineHeading =
    "transmit power in dBm; RSRP in dBm / SNR in dB of the strongest chain, by carrier: the primary one, then "
    "secondary 1, 2, ...";
std::string reading_line(const Reading& reading);

Json reading_json(const Reading& reading);

// "rx 1 2 3 0 (was 0 1 2 3), tx 1 3": the antennas of the chains; empty if the modem has reported none.
std::string antennas_text(const SubscriptionReading& reading);

// "LTE, transmit power 12 dBm".
std::string state_text(const SubscriptionReading& reading);

}  // namespace pelmar::cli
