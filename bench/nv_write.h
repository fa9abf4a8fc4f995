// The message for the benchmarks of encoders: a write of 256 bytes to an NV item, in its QMUX frame.
#pragma once

#include <cstdint>
#include <numeric>
#include <vector>

#include "vs_messages.h"

namespace pelmar::bench {

inline constexpr uint8_t kClient = 3;
inline constexpr uint16_t kTransaction = 7;

inline vs::WriteNvRequest nv_write() {
  vs::WriteNvRequest request{};
  request.item = 0x01020304;
  request.qualifier = 5;
  request.index = 0x0607;
  request.data_len = vs::kMaxItemBytes;
  std::iota(std::begin(request.data), std::end(request.data), uint8_t{0});
  return request;
}

// The message's frame, built by the codec and with the framework's headers.
std::vector<uint8_t> encoded_nv_write();

}  // namespace pelmar::bench
