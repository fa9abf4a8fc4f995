// The simulated modem's numbers for the statistics values, whose fields are in statistic_tables.h.
//
// A row has the function that reads the numbers of a value, one for each field, from a radio sample: levels and powers
// in dBm, ratios and losses in dB. A number beyond the range of its field's type becomes the nearest one in it.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "radio/radio_picture.h"
#include "statistic_tables.h"

namespace pelmar::sim {

using statistics::width_of;
using statistics::WireType;

struct NumberRange {
  double least;
  double most;
};

NumberRange range_of(WireType type);

inline constexpr size_t kMaxFields = 22;
using Numbers = std::array<double, kMaxFields>;

struct StatisticRow {
  uint32_t id;
  std::string_view name;
  std::span<const statistics::Field> fields;
  size_t carrier;  // for the values that several carriers have; else 0
  Numbers (*read)(const RadioSample& sample, size_t carrier);
  bool (*is_there)(const RadioSample& sample, size_t carrier);

  // In the units of the fields.
  Numbers numbers_of(const RadioSample& sample) const;

  // The field's name; where several fields of the value share it, with a number behind it: "pathloss2".
  std::string field_name(const statistics::Field& field) const;
  const statistics::Field* find_field(std::string_view name) const;
};

std::span<const StatisticRow> statistic_rows();

// One value: a statistics identifier of a subscription.
struct StatisticKey {
  uint16_t sub;
  uint32_t id;
  auto operator<=>(const StatisticKey&) const = default;  // NOLINT(modernize-use-nullptr): a false positive
};

// Null for an identifier or name that the modem has no value for.
const StatisticRow* find_statistic(uint32_t id);
const StatisticRow* find_statistic(std::string_view name);

// numbers: one for each field. Writes the value's bytes and returns their number.
size_t pack(const StatisticRow& row, std::span<const double> numbers, std::span<uint8_t> bytes);

// The number of a field that begins there.
double unpack(WireType type, const uint8_t* bytes);

}  // namespace pelmar::sim
