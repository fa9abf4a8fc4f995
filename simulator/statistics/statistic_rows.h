// The simulated modem's numbers for the statistics values (statistic_tables.h).
//
// A field says where in a radio sample its number is; its unit is stated beside its rows. A number that does not fit
// its field is cut to the field's range.
#pragma once

#include <compare>
#include <cstdint>
#include <span>
#include <string_view>

#include "radio/radio_sample.h"
#include "statistic_tables.h"

namespace pelmar::sim {

using statistics::width_of;
using statistics::WireType;

struct NumberRange {
  double least;
  double most;
};

NumberRange range_of(WireType type);

struct StatisticField {
  std::string_view name;
  WireType type;
  double (*read)(const RadioSample& sample, size_t carrier);
};

struct StatisticRow {
  uint32_t id;
  std::string_view name;
  size_t carrier;  // for the values that several carriers have; else 0
  std::span<const StatisticField> fields;
  bool (*is_there)(const RadioSample& sample, size_t carrier);

  const StatisticField* find_field(std::string_view field) const;
  size_t size() const;  // of the value
};

inline constexpr size_t kMaxFields = 22;
inline constexpr size_t kMaxPackedBytes = 75;

std::span<const StatisticRow> statistic_rows();

// One value: a statistics identifier of a subscription.
struct StatisticKey {
  uint16_t sub;
  uint32_t id;
  auto operator<=>(const StatisticKey&) const = default;  // NOLINT(modernize-use-nullptr): it sees its own expansion
};

// Null for an identifier or name that the modem has no value for.
const StatisticRow* find_statistic(uint32_t id);
const StatisticRow* find_statistic(std::string_view name);

// numbers: one a field. Writes the value's bytes and returns how many.
size_t pack(const StatisticRow& row, std::span<const double> numbers, std::span<uint8_t> bytes);

// The field's number at the front of the bytes, which are as many as its width.
double unpack(WireType type, const uint8_t* bytes);

}  // namespace pelmar::sim
