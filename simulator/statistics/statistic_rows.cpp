#include "statistics/statistic_rows.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace pelmar::sim {

namespace {

// Levels and ratios of receive chains go in tenths of dBm or dB; powers and losses of the uplink in whole dBm or dB, or
// as floats.
constexpr double tenths(double value) {
  return value * 10;
}

enum : uint8_t { kVersion = 1, kStacks = 1 };

// clang-format off
#define FIELD(name, type, expression)                                                           \
  {name, WireType::type, []([[maybe_unused]] const RadioSample& sample, [[maybe_unused]] size_t carrier) -> double { \
     return static_cast<double>(expression);                                                    \
   }}
#define VERSION(name, type) FIELD(name, type, kVersion)

// --- LTE ---

#define CHAIN(i)                                                                 \
  FIELD("rsrp_rx" #i, kI32, tenths(sample.lte[carrier].chains[i].rsrp)),         \
  FIELD("rsrq_rx" #i, kI32, tenths(sample.lte[carrier].chains[i].rsrq)),         \
  FIELD("rssi_rx" #i, kI32, tenths(sample.lte[carrier].chains[i].rssi)),         \
  FIELD("snr_rx" #i,  kI32, tenths(sample.lte[carrier].chains[i].snr))
constexpr StatisticField kLteCell[] = {
    VERSION("version",      kU8),
    VERSION("version_ssmr", kU8),
    FIELD("earfcn",         kU32, sample.lte[carrier].earfcn),
    FIELD("pci",            kU16, sample.lte[carrier].physical_cell_id),
    FIELD("is_srv_cell",    kU8,  sample.lte[carrier].is_there),
    FIELD("rx_valid",       kU16, sample.lte[carrier].measured_chains),
    CHAIN(0), CHAIN(1), CHAIN(2), CHAIN(3),
};
#undef CHAIN

// Whole dB and dBm. The extended power is what the cell asks for, also where that is above the limit.
constexpr StatisticField kLteUplink[] = {
    VERSION("version",         kU8),
    FIELD("pusch_tx_power",    kI16, sample.lte_uplink.power()),
    FIELD("dl_path_loss",      kU8,  sample.lte_uplink.path_loss),
    FIELD("max_power",         kU16, sample.lte_uplink.max_power),
    FIELD("pusch_ex_tx_power", kU16, sample.lte_uplink.demanded_power),
};

// --- NR ---

#define CHAINS(name, member)                                                     \
  FIELD(name "0", kI32, tenths(sample.nr[carrier].chains[0].member)),            \
  FIELD(name "1", kI32, tenths(sample.nr[carrier].chains[1].member)),            \
  FIELD(name "2", kI32, tenths(sample.nr[carrier].chains[2].member)),            \
  FIELD(name "3", kI32, tenths(sample.nr[carrier].chains[3].member))
constexpr StatisticField kNrCell[] = {
    VERSION("version", kU32),
    CHAINS("rsrp_rx", rsrp),
    FIELD("rsrq",      kI32, tenths(sample.nr[carrier].rsrq)),
};

constexpr StatisticField kNrReceiveGain[] = {
    VERSION("version", kU32),
    CHAINS("rssi", rssi),
};

constexpr StatisticField kNrTracking[] = {
    VERSION("version", kU32),
    CHAINS("snr", snr),
};
#undef CHAINS

#define SWITCHED(name, chain_antenna, chain)                                                            \
  FIELD(name "_old", kU8, Antennas::chain_antenna(chain, sample.antennas.previous_config)),             \
  FIELD(name "_new", kU8, Antennas::chain_antenna(chain, sample.antennas.config))
constexpr StatisticField kNrAntennas[] = {
    VERSION("version", kU32),
    SWITCHED("ant_rx_0", of_chain, 0),
    SWITCHED("ant_rx_1", of_chain, 1),
    SWITCHED("ant_rx_2", of_chain, 2),
    SWITCHED("ant_rx_3", of_chain, 3),
    SWITCHED("ant_tx_0", of_transmitter, 0),
    SWITCHED("ant_tx_1", of_transmitter, 1),
};
#undef SWITCHED

// Floats in dB and dBm. The control channel has less than the shared one, random access starts below both.
constexpr double kControlOffset = -3;
constexpr double kSoundingOffset = -1;
constexpr double kRandomAccessOffset = -6;
#define LIMITED(offset) std::min(sample.nr_uplink.demanded_power + (offset), sample.nr_uplink.max_power)
constexpr StatisticField kNrUplink[] = {
    VERSION("version_hook",  kU32),
    FIELD("tx_power_pusch",  kFloat, LIMITED(0)),
    FIELD("tx_power_pucch",  kFloat, LIMITED(kControlOffset)),
    FIELD("tx_power_srs",    kFloat, LIMITED(kSoundingOffset)),
    FIELD("tx_power_prach",  kFloat, LIMITED(kRandomAccessOffset)),
    FIELD("mtpl_pusch",      kFloat, sample.nr_uplink.max_power),
    FIELD("mtpl_pucch",      kFloat, sample.nr_uplink.max_power),
    FIELD("mtpl_srs",        kFloat, sample.nr_uplink.max_power),
    FIELD("mtpl_prach",      kFloat, sample.nr_uplink.max_power),
    FIELD("pathloss0",       kFloat, sample.nr_uplink.path_loss),
    FIELD("pathloss1",       kFloat, sample.nr_uplink.path_loss),
    FIELD("pathloss2",       kFloat, sample.nr_uplink.path_loss),
    FIELD("pathloss3",       kFloat, sample.nr_uplink.path_loss),
};
#undef LIMITED

// --- the others ---

constexpr StatisticField kWcdmaSearch[] = {
    VERSION("version", kU8),
    FIELD("rx_agc_0",  kI32, tenths(sample.wcdma_levels[0])),
    FIELD("rx_agc_1",  kI32, tenths(sample.wcdma_levels[1])),
};

constexpr StatisticField kGsmLevels[] = {
    VERSION("version", kU8),
    FIELD("rx_prx",    kI32, tenths(sample.gsm_levels[0])),
    FIELD("rx_drx",    kI32, tenths(sample.gsm_levels[1])),
};

// The switch's paths are those to the antennas of the first receive and the first transmit chain, a bit each.
constexpr StatisticField kAntennaSwitch[] = {
    VERSION("version",       kU8),
    FIELD("ant_number",      kU8,  kAntennas),
    FIELD("ant_switch_path", kU16, 1u << Antennas::of_chain(0, sample.antennas.config)),
    FIELD("sig_path",        kU16, 1u << Antennas::of_transmitter(0, sample.antennas.config)),
    FIELD("old_config",      kU8,  sample.antennas.previous_config),
    FIELD("new_config",      kU8,  sample.antennas.config),
};

constexpr StatisticField kSystemMode[] = {
    FIELD("stack_max", kU8,  kStacks),
    FIELD("rat",       kU32, sample.mode),
};
#undef VERSION
#undef FIELD

bool always(const RadioSample&, size_t) { return true; }
bool on_lte(const RadioSample& sample, size_t carrier) { return sample.lte[carrier].is_there; }
bool on_nr(const RadioSample& sample, size_t carrier) { return sample.nr[carrier].is_there; }

constexpr StatisticRow kRows[] = {
    {0x52, "lte-pcc",        0, kLteCell,       on_lte},
    {0x67, "lte-scc1",       1, kLteCell,       on_lte},
    {0x68, "lte-scc2",       2, kLteCell,       on_lte},
    {0x69, "lte-scc3",       3, kLteCell,       on_lte},
    {0x6a, "lte-scc4",       4, kLteCell,       on_lte},
    {0x6b, "lte-scc5",       5, kLteCell,       on_lte},
    {0x6c, "lte-scc6",       6, kLteCell,       on_lte},
    {0x62, "lte-uplink",     0, kLteUplink,     on_lte},
    {0x87, "nr-pcc",         0, kNrCell,        on_nr},
    {0x06, "nr-scc1",        1, kNrCell,        on_nr},
    {0x07, "nr-scc2",        2, kNrCell,        on_nr},
    {0x5e, "nr-rx-gain",     0, kNrReceiveGain, on_nr},
    {0x70, "nr-tracking",    0, kNrTracking,    on_nr},
    {0x71, "nr-antennas",    0, kNrAntennas,    on_nr},
    {0x5a, "nr-uplink",      0, kNrUplink,      on_nr},
    {0x6e, "wcdma-search",   0, kWcdmaSearch,   always},
    {0x6f, "gsm-levels",     0, kGsmLevels,     always},
    {0x64, "antenna-switch", 0, kAntennaSwitch, always},
    {0x2c, "system-mode",    0, kSystemMode,    always},
};
// clang-format on

constexpr size_t bytes_of(std::span<const StatisticField> fields) {
  size_t bytes = 0;
  for (const StatisticField& field : fields) bytes += width_of(field.type);
  return bytes;
}
static_assert(bytes_of(kLteCell) == kMaxPackedBytes && std::size(kLteCell) == kMaxFields);
static_assert(bytes_of(kNrCell) == 24 && bytes_of(kNrReceiveGain) == 20 && bytes_of(kNrTracking) == 20);
static_assert(bytes_of(kNrAntennas) == 16 && bytes_of(kNrUplink) == 52 && bytes_of(kLteUplink) == 8);
static_assert(bytes_of(kWcdmaSearch) == 9 && bytes_of(kGsmLevels) == 9 && bytes_of(kAntennaSwitch) == 8);
static_assert(bytes_of(kSystemMode) == 5);
static_assert(kNrAntennas[1].name == "ant_rx_0_old" && kNrCell[1].name == "rsrp_rx0");

template <typename Integer>
constexpr NumberRange kRangeOf = {static_cast<double>(std::numeric_limits<Integer>::min()),
                                  static_cast<double>(std::numeric_limits<Integer>::max())};

void put(WireType type, double number, uint8_t* bytes) {
  const auto [least, most] = range_of(type);
  const double fitting = std::clamp(number, least, most);
  if (type == WireType::kFloat) {
    const auto value = static_cast<float>(fitting);
    std::memcpy(bytes, &value, sizeof value);
    return;
  }
  const auto integer = static_cast<uint64_t>(std::llround(fitting));
  for (size_t i = 0; i < width_of(type); ++i) bytes[i] = static_cast<uint8_t>(integer >> (8 * i));
}

template <typename Value>
double read_as(const uint8_t* bytes) {
  Value value;
  std::memcpy(&value, bytes, sizeof value);
  return static_cast<double>(value);
}

}  // namespace

NumberRange range_of(WireType type) {
  switch (type) {
    case WireType::kU8:
      return kRangeOf<uint8_t>;
    case WireType::kU16:
      return kRangeOf<uint16_t>;
    case WireType::kI16:
      return kRangeOf<int16_t>;
    case WireType::kU32:
      return kRangeOf<uint32_t>;
    case WireType::kI32:
      return kRangeOf<int32_t>;
    case WireType::kFloat:
      break;
  }
  return {-std::numeric_limits<float>::max(), std::numeric_limits<float>::max()};
}

const StatisticField* StatisticRow::find_field(std::string_view field) const {
  const auto found = std::find_if(fields.begin(), fields.end(), [&](const auto& each) { return each.name == field; });
  return found == fields.end() ? nullptr : &*found;
}

size_t StatisticRow::size() const {
  return bytes_of(fields);
}

std::span<const StatisticRow> statistic_rows() {
  return kRows;
}

const StatisticRow* find_statistic(uint32_t id) {
  const auto found = std::find_if(std::begin(kRows), std::end(kRows), [&](const auto& row) { return row.id == id; });
  return found == std::end(kRows) ? nullptr : found;
}

const StatisticRow* find_statistic(std::string_view name) {
  const auto found =
      std::find_if(std::begin(kRows), std::end(kRows), [&](const auto& row) { return row.name == name; });
  return found == std::end(kRows) ? nullptr : found;
}

size_t pack(const StatisticRow& row, std::span<const double> numbers, std::span<uint8_t> bytes) {
  size_t at = 0;
  for (size_t i = 0; i < row.fields.size(); ++i) {
    const WireType type = row.fields[i].type;
    put(type, numbers[i], bytes.data() + at);
    at += width_of(type);
  }
  return at;
}

double unpack(WireType type, const uint8_t* bytes) {
  switch (type) {
    case WireType::kU8:
      return bytes[0];
    case WireType::kU16:
      return read_as<uint16_t>(bytes);
    case WireType::kI16:
      return read_as<int16_t>(bytes);
    case WireType::kU32:
      return read_as<uint32_t>(bytes);
    case WireType::kI32:
      return read_as<int32_t>(bytes);
    case WireType::kFloat:
      break;
  }
  return read_as<float>(bytes);
}

}  // namespace pelmar::sim
