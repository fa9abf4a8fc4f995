// TLVs, of which every QMI message consists: u8 type, u16 length, value. All integers are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace pelmar::qmi {

inline constexpr size_t kTlvHeaderLength = 3;
inline constexpr uint8_t kResultTlv = 0x02;  // of every response: u16 result, u16 error
inline constexpr size_t kResultLength = 4;

inline uint16_t load_u16(const uint8_t* at) {
  return static_cast<uint16_t>(at[0] | at[1] << 8);
}

inline void store_u16(uint8_t* at, size_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
}

// The value of the first TLV of that type.
inline std::optional<std::span<const uint8_t>> find_tlv(std::span<const uint8_t> tlvs, uint8_t type) {
  while (tlvs.size() >= kTlvHeaderLength) {
    const size_t length = load_u16(&tlvs[1]);
    if (length > tlvs.size() - kTlvHeaderLength) break;
    if (tlvs[0] == type) return tlvs.subspan(kTlvHeaderLength, length);
    tlvs = tlvs.subspan(kTlvHeaderLength + length);
  }
  return std::nullopt;
}

}  // namespace pelmar::qmi
