// A number that the operator puts into each statistics value, by which a reader knows which one it was given.
//
// It goes into the first byte of the value, its version. A modem that has just started does not have it yet: its own
// versions are smaller than any stamp.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "statistics/statistic_rows.h"

namespace pelmar::system_test::chaos {

inline constexpr uint8_t kFirstStamp = 100;
inline constexpr uint16_t kStampedSubscriptions = 2;

inline uint8_t statistic_stamp(uint16_t sub, uint32_t id) {
  const std::span rows = sim::statistic_rows();
  const auto number = static_cast<size_t>(sim::find_statistic(id) - rows.data());
  return static_cast<uint8_t>(kFirstStamp + kStampedSubscriptions * number + sub);
}

inline bool is_stamped_right(uint8_t first_byte, uint16_t sub, uint32_t id) {
  return first_byte < kFirstStamp || first_byte == statistic_stamp(sub, id);
}

}  // namespace pelmar::system_test::chaos
