#include "statistics/statistic_rows.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace pelmar::sim {

namespace {

// Levels and ratios of receive chains go in tenths of dBm or dB; powers and losses of the uplink in whole dBm or dB, or
// as floats.
constexpr double tenths(double value) {
  return value * 10;
}

enum : uint8_t { kVersion = 1, kStacks = 1 };

struct Reading {
  std::string_view name;  // the field's, with a number where several fields have it
  double (*read)(const RadioSample& sample, size_t carrier);
};

template <size_t kCount>
consteval std::array<StatisticField, kCount> fields(const statistics::Field (&wire)[kCount],
                                                    const Reading (&readings)[kCount]) {
  std::array<StatisticField, kCount> all = {};
  for (size_t i = 0; i < kCount; ++i) {
    if (!readings[i].name.starts_with(wire[i].name)) throw std::logic_error("not the field of this place");
    all[i] = {readings[i].name, wire[i].type, readings[i].read};
  }
  return all;
}

// clang-format off
#define FIELD(name, expression)                                                                        \
  {name, []([[maybe_unused]] const RadioSample& sample, [[maybe_unused]] size_t carrier) -> double { \
     return static_cast<double>(expression);                                                         \
   }}
#define VERSION(name) FIELD(name, kVersion)

// --- LTE ---

#define CHAIN(i)                                                                 \
  FIELD("rsrp_rx" #i, tenths(sample.lte[carrier].chains[i].rsrp)),         \
  FIELD("rsrq_rx" #i, tenths(sample.lte[carrier].chains[i].rsrq)),         \
  FIELD("rssi_rx" #i, tenths(sample.lte[carrier].chains[i].rssi)),         \
  FIELD("snr_rx" #i,  tenths(sample.lte[carrier].chains[i].snr))
constexpr auto kLteCell = fields(statistics::kLteCell, {
    VERSION("version"),
    VERSION("version_ssmr"),
    FIELD("earfcn",         sample.lte[carrier].earfcn),
    FIELD("pci",            sample.lte[carrier].physical_cell_id),
    FIELD("is_srv_cell",    sample.lte[carrier].is_there),
    FIELD("rx_valid",       sample.lte[carrier].measured_chains),
    CHAIN(0), CHAIN(1), CHAIN(2), CHAIN(3)
});
#undef CHAIN

// Whole dB and dBm. The extended power is what the cell asks for, also where that is above the limit.
constexpr auto kLteUplink = fields(statistics::kLteUplink, {
    VERSION("version"),
    FIELD("pusch_tx_power",    sample.lte_uplink.power()),
    FIELD("dl_path_loss",      sample.lte_uplink.path_loss),
    FIELD("max_power",         sample.lte_uplink.max_power),
    FIELD("pusch_ex_tx_power", sample.lte_uplink.demanded_power)
});

// --- NR ---

#define CHAINS(name, member)                                                     \
  FIELD(name "0", tenths(sample.nr[carrier].chains[0].member)),            \
  FIELD(name "1", tenths(sample.nr[carrier].chains[1].member)),            \
  FIELD(name "2", tenths(sample.nr[carrier].chains[2].member)),            \
  FIELD(name "3", tenths(sample.nr[carrier].chains[3].member))
constexpr auto kNrCell = fields(statistics::kNrCell, {
    VERSION("version"),
    CHAINS("rsrp_rx", rsrp),
    FIELD("rsrq",      tenths(sample.nr[carrier].rsrq))
});

constexpr auto kNrReceiveGain = fields(statistics::kNrReceiveGain, {
    VERSION("version"),
    CHAINS("rssi", rssi)
});

constexpr auto kNrTracking = fields(statistics::kNrTracking, {
    VERSION("version"),
    CHAINS("snr", snr)
});
#undef CHAINS

#define SWITCHED(name, chain_antenna, chain)                                                            \
  FIELD(name "_old", Antennas::chain_antenna(chain, sample.antennas.previous_config)),             \
  FIELD(name "_new", Antennas::chain_antenna(chain, sample.antennas.config))
constexpr auto kNrAntennas = fields(statistics::kNrAntennas, {
    VERSION("version"),
    SWITCHED("ant_rx_0", of_chain, 0),
    SWITCHED("ant_rx_1", of_chain, 1),
    SWITCHED("ant_rx_2", of_chain, 2),
    SWITCHED("ant_rx_3", of_chain, 3),
    SWITCHED("ant_tx_0", of_transmitter, 0),
    SWITCHED("ant_tx_1", of_transmitter, 1)
});
#undef SWITCHED

// Floats in dB and dBm. The control channel has less than the shared one, random access starts below both.
constexpr double kControlOffset = -3;
constexpr double kSoundingOffset = -1;
constexpr double kRandomAccessOffset = -6;
#define LIMITED(offset) std::min(sample.nr_uplink.demanded_power + (offset), sample.nr_uplink.max_power)
constexpr auto kNrUplink = fields(statistics::kNrUplink, {
    VERSION("version_hook"),
    FIELD("tx_power_pusch",  LIMITED(0)),
    FIELD("tx_power_pucch",  LIMITED(kControlOffset)),
    FIELD("tx_power_srs",    LIMITED(kSoundingOffset)),
    FIELD("tx_power_prach",  LIMITED(kRandomAccessOffset)),
    FIELD("mtpl_pusch",      sample.nr_uplink.max_power),
    FIELD("mtpl_pucch",      sample.nr_uplink.max_power),
    FIELD("mtpl_srs",        sample.nr_uplink.max_power),
    FIELD("mtpl_prach",      sample.nr_uplink.max_power),
    FIELD("pathloss0",       sample.nr_uplink.path_loss),
    FIELD("pathloss1",       sample.nr_uplink.path_loss),
    FIELD("pathloss2",       sample.nr_uplink.path_loss),
    FIELD("pathloss3",       sample.nr_uplink.path_loss)
});
#undef LIMITED

// --- the others ---

constexpr auto kWcdmaSearch = fields(statistics::kWcdmaSearch, {
    VERSION("version"),
    FIELD("rx_agc_0",  tenths(sample.wcdma_levels[0])),
    FIELD("rx_agc_1",  tenths(sample.wcdma_levels[1]))
});

constexpr auto kGsmLevels = fields(statistics::kGsmLevels, {
    VERSION("version"),
    FIELD("rx_prx",    tenths(sample.gsm_levels[0])),
    FIELD("rx_drx",    tenths(sample.gsm_levels[1]))
});

// The switch's paths are those to the antennas of the first receive and the first transmit chain, a bit each.
constexpr auto kAntennaSwitch = fields(statistics::kAntennaSwitch, {
    VERSION("version"),
    FIELD("ant_number",      kAntennas),
    FIELD("ant_switch_path", 1u << Antennas::of_chain(0, sample.antennas.config)),
    FIELD("sig_path",        1u << Antennas::of_transmitter(0, sample.antennas.config)),
    FIELD("old_config",      sample.antennas.previous_config),
    FIELD("new_config",      sample.antennas.config)
});

constexpr auto kSystemMode = fields(statistics::kSystemMode, {
    FIELD("stack_max", kStacks),
    FIELD("rat",       sample.mode)
});
#undef VERSION
#undef FIELD

bool always(const RadioSample&, size_t) { return true; }
bool on_lte(const RadioSample& sample, size_t carrier) { return sample.lte[carrier].is_there; }
bool on_nr(const RadioSample& sample, size_t carrier) { return sample.nr[carrier].is_there; }

constexpr StatisticRow row(std::string_view name, size_t carrier, std::span<const StatisticField> fields,
                           bool (*is_there)(const RadioSample& sample, size_t carrier)) {
  const auto value = std::ranges::find(statistics::kValues, name, &statistics::Value::name);
  return {value->id, name, carrier, fields, is_there};
}

constexpr StatisticRow kRows[] = {
    row("lte-pcc", 0, kLteCell, on_lte),
    row("lte-scc1", 1, kLteCell, on_lte),
    row("lte-scc2", 2, kLteCell, on_lte),
    row("lte-scc3", 3, kLteCell, on_lte),
    row("lte-scc4", 4, kLteCell, on_lte),
    row("lte-scc5", 5, kLteCell, on_lte),
    row("lte-scc6", 6, kLteCell, on_lte),
    row("lte-uplink", 0, kLteUplink, on_lte),
    row("nr-pcc", 0, kNrCell, on_nr),
    row("nr-scc1", 1, kNrCell, on_nr),
    row("nr-scc2", 2, kNrCell, on_nr),
    row("nr-rx-gain", 0, kNrReceiveGain, on_nr),
    row("nr-tracking", 0, kNrTracking, on_nr),
    row("nr-antennas", 0, kNrAntennas, on_nr),
    row("nr-uplink", 0, kNrUplink, on_nr),
    row("wcdma-search", 0, kWcdmaSearch, always),
    row("gsm-levels", 0, kGsmLevels, always),
    row("antenna-switch", 0, kAntennaSwitch, always),
    row("system-mode", 0, kSystemMode, always),
};
// clang-format on

constexpr size_t bytes_of(std::span<const StatisticField> fields) {
  size_t bytes = 0;
  for (const StatisticField& field : fields) bytes += width_of(field.type);
  return bytes;
}
static_assert(bytes_of(kLteCell) == kMaxPackedBytes && std::size(kLteCell) == kMaxFields);

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
