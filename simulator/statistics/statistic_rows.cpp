#include "statistics/statistic_rows.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <iterator>
#include <limits>

namespace pelmar::sim {

namespace {

constexpr double kVersion = 1;
constexpr double kStacks = 1;

// --- the numbers of each value, in the order of its fields ---

Numbers lte_cell(const RadioSample& sample, size_t carrier) {
  const Carrier& from = sample.lte[carrier];
  Numbers numbers = {kVersion,
                     kVersion,
                     static_cast<double>(from.frequency),
                     static_cast<double>(from.physical_cell_id),
                     static_cast<double>(from.is_there),
                     static_cast<double>(from.measured_chains)};
  auto place = numbers.begin() + 6;
  for (const Levels& chain : from.chains) {
    for (const double level : {chain.rsrp, chain.rsrq, chain.rssi, chain.snr}) *place++ = level;
  }
  return numbers;
}

// Whole dB and dBm. The last power is the one that the cell demands, also where it is above the limit.
Numbers lte_uplink(const RadioSample& sample, size_t) {
  const Uplink& from = sample.lte_uplink;
  return {kVersion, from.power(), from.path_loss, from.max_power, from.demanded_power};
}

template <double Levels::*Level>
Numbers nr_chains(const RadioSample& sample, size_t carrier) {
  const auto& chains = sample.nr[carrier].chains;
  return {kVersion, chains[0].*Level, chains[1].*Level, chains[2].*Level, chains[3].*Level};
}

Numbers nr_cell(const RadioSample& sample, size_t carrier) {
  Numbers numbers = nr_chains<&Levels::rsrp>(sample, carrier);
  numbers[1 + kChains] = sample.nr[carrier].rsrq;
  return numbers;
}

// For each receive chain and each transmitter: the antenna before the last switch and the one after it.
Numbers nr_antennas(const RadioSample& sample, size_t) {
  Numbers numbers = {kVersion};
  auto place = numbers.begin() + 1;
  for (size_t i = 0; i < kChains + 2; ++i) {
    for (const uint8_t config : {sample.antennas.previous_config, sample.antennas.config}) {
      *place++ = i < kChains ? Antennas::of_chain(i, config) : Antennas::of_transmitter(i - kChains, config);
    }
  }
  return numbers;
}

// Floats in dB and dBm, for the shared channel, the control channel, sounding and random access. The control channel
// has less power than the shared one, and random access starts below both.
Numbers nr_uplink(const RadioSample& sample, size_t) {
  const Uplink& from = sample.nr_uplink;
  Numbers numbers = {kVersion};
  auto place = numbers.begin() + 1;
  for (const double offset : {0, -3, -1, -6}) *place++ = std::min(from.demanded_power + offset, from.max_power);
  place = std::fill_n(place, 4, from.max_power);
  std::fill_n(place, kChains, from.path_loss);
  return numbers;
}

Numbers wcdma_search(const RadioSample& sample, size_t) {
  return {kVersion, sample.wcdma_levels[0], sample.wcdma_levels[1]};
}

Numbers gsm_levels(const RadioSample& sample, size_t) {
  return {kVersion, sample.gsm_levels[0], sample.gsm_levels[1]};
}

// The switch's paths are those to the antennas of the first receive chain and the first transmitter, a bit each.
Numbers antenna_switch(const RadioSample& sample, size_t) {
  const Antennas& from = sample.antennas;
  const double receive_path = 1u << Antennas::of_chain(0, from.config);
  const double transmit_path = 1u << Antennas::of_transmitter(0, from.config);
  return {kVersion, kAntennas, receive_path, transmit_path, double(from.previous_config), double(from.config)};
}

Numbers system_mode(const RadioSample& sample, size_t) {
  return {kStacks, static_cast<double>(sample.mode)};
}

// --- the rows ---

bool always(const RadioSample&, size_t) {
  return true;
}
bool on_lte(const RadioSample& sample, size_t carrier) {
  return sample.lte[carrier].is_there;
}
bool on_nr(const RadioSample& sample, size_t carrier) {
  return sample.nr[carrier].is_there;
}

constexpr StatisticRow row(uint32_t id, size_t carrier, decltype(StatisticRow::read) read,
                           decltype(StatisticRow::is_there) is_there) {
  const statistics::Value& value = *statistics::find_value(id);
  return {id, value.name, value.fields, carrier, read, is_there};
}

constexpr StatisticRow kRows[] = {
    row(0x52, 0, lte_cell, on_lte),
    row(0x67, 1, lte_cell, on_lte),
    row(0x68, 2, lte_cell, on_lte),
    row(0x69, 3, lte_cell, on_lte),
    row(0x6a, 4, lte_cell, on_lte),
    row(0x6b, 5, lte_cell, on_lte),
    row(0x6c, 6, lte_cell, on_lte),
    row(0x62, 0, lte_uplink, on_lte),
    row(0x87, 0, nr_cell, on_nr),
    row(0x06, 1, nr_cell, on_nr),
    row(0x07, 2, nr_cell, on_nr),
    row(0x5e, 0, nr_chains<&Levels::rssi>, on_nr),
    row(0x70, 0, nr_chains<&Levels::snr>, on_nr),
    row(0x71, 0, nr_antennas, on_nr),
    row(0x5a, 0, nr_uplink, on_nr),
    row(0x6e, 0, wcdma_search, always),
    row(0x6f, 0, gsm_levels, always),
    row(0x64, 0, antenna_switch, always),
    row(0x2c, 0, system_mode, always),
};
static_assert(std::size(statistics::kLteCell) == kMaxFields);
static_assert(std::size(kRows) == std::size(statistics::kValues));

template <typename Number>
constexpr NumberRange kRangeOf = {static_cast<double>(std::numeric_limits<Number>::lowest()),
                                  static_cast<double>(std::numeric_limits<Number>::max())};

// Indexed by WireType.
constexpr NumberRange kRanges[] = {kRangeOf<uint8_t>,  kRangeOf<uint16_t>, kRangeOf<int16_t>,
                                   kRangeOf<uint32_t>, kRangeOf<int32_t>,  kRangeOf<float>};

uint64_t to_wire(WireType type, double number) {
  const auto [least, most] = range_of(type);
  const double fitting = std::clamp(number, least, most);
  if (type == WireType::kFloat) return std::bit_cast<uint32_t>(static_cast<float>(fitting));
  return static_cast<uint64_t>(std::llround(fitting));
}

template <typename Rows, typename Predicate>
auto find_row(const Rows& rows, Predicate predicate) {
  const auto found = std::find_if(std::begin(rows), std::end(rows), predicate);
  return found == std::end(rows) ? nullptr : &*found;
}

}  // namespace

NumberRange range_of(WireType type) {
  return kRanges[static_cast<size_t>(type)];
}

std::span<const StatisticRow> statistic_rows() {
  return kRows;
}

std::string StatisticRow::field_name(const statistics::Field& field) const {
  const auto has_name = [&](const auto& each) { return std::string_view(each.name) == field.name; };
  if (std::count_if(fields.begin(), fields.end(), has_name) == 1) return field.name;
  return field.name + std::to_string(std::count_if(fields.data(), &field, has_name));
}

const statistics::Field* StatisticRow::find_field(std::string_view wanted) const {
  return find_row(fields, [&](const statistics::Field& field) { return field_name(field) == wanted; });
}

const StatisticRow* find_statistic(uint32_t id) {
  return find_row(kRows, [&](const StatisticRow& row) { return row.id == id; });
}

const StatisticRow* find_statistic(std::string_view name) {
  return find_row(kRows, [&](const StatisticRow& row) { return row.name == name; });
}

Numbers StatisticRow::numbers_of(const RadioSample& sample) const {
  Numbers numbers = read(sample, carrier);
  for (size_t i = 0; i < fields.size(); ++i) {
    if (statistics::unit_of(fields[i]).starts_with("0.1 ")) numbers[i] *= 10;
  }
  return numbers;
}

size_t pack(const StatisticRow& row, std::span<const double> numbers, std::span<uint8_t> bytes) {
  size_t size = 0;
  for (size_t i = 0; i < row.fields.size(); ++i) {
    const WireType type = row.fields[i].type;
    const uint64_t wire = to_wire(type, numbers[i]);
    for (size_t byte = 0; byte < width_of(type); ++byte) bytes[size++] = static_cast<uint8_t>(wire >> (8 * byte));
  }
  return size;
}

double unpack(WireType type, const uint8_t* bytes) {
  uint32_t wire = 0;
  for (size_t i = 0; i < width_of(type); ++i) wire |= uint32_t{bytes[i]} << (8 * i);
  switch (type) {
    case WireType::kFloat:
      return std::bit_cast<float>(wire);
    case WireType::kI16:
      return static_cast<int16_t>(wire);
    case WireType::kI32:
      return static_cast<int32_t>(wire);
    default:
      return wire;
  }
}

}  // namespace pelmar::sim
