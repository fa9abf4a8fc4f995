// A QMI service message, the same on every transport: u8 flags, u16 transaction, u16 message id, u16 length, TLVs.
//
// All integers are little-endian. Indications have transaction 0, all other messages one that is not 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "deadline.h"

namespace pelmar::platform {

enum class MessageKind : uint8_t { kRequest = 0, kResponse = 2, kIndication = 4 };

inline constexpr size_t kMessageHeaderLength = 7;
inline constexpr size_t kTlvHeaderLength = 3;
inline constexpr uint8_t kResultTlv = 0x02;  // of a response: u16 result, u16 error

struct Message {
  MessageKind kind;
  uint16_t transaction;
  uint16_t id;
  bool length_agrees;  // the header's length is that of the TLVs that arrived
  const uint8_t* tlvs;
  size_t length;
  std::optional<Deadline::Clock::time_point> kept_since = std::nullopt;  // where it was kept back
};

inline uint16_t load_u16(const uint8_t* at) {
  return static_cast<uint16_t>(at[0] | at[1] << 8);
}

inline void store_u16(uint8_t* at, size_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
}

inline void store_message_header(uint8_t* at, MessageKind kind, uint16_t transaction, uint16_t id, size_t length) {
  at[0] = static_cast<uint8_t>(kind);
  store_u16(at + 1, transaction);
  store_u16(at + 3, id);
  store_u16(at + 5, length);
}

// Reads a response or an indication; false where the bytes are too few or something else.
inline bool load_message(const uint8_t* bytes, size_t length, Message& message) {
  if (length < kMessageHeaderLength) return false;
  message.kind = static_cast<MessageKind>(bytes[0]);
  if (message.kind != MessageKind::kResponse && message.kind != MessageKind::kIndication) return false;
  message.transaction = load_u16(bytes + 1);
  message.id = load_u16(bytes + 3);
  message.tlvs = bytes + kMessageHeaderLength;
  message.length = length - kMessageHeaderLength;
  message.length_agrees = load_u16(bytes + 5) == message.length;
  message.kept_since.reset();
  return true;
}

struct Value {
  const uint8_t* bytes = nullptr;
  size_t length = 0;
};

// The value of the first TLV of that type; no bytes where there is none.
inline Value find_tlv(uint8_t type, const uint8_t* at, size_t length) {
  while (length >= kTlvHeaderLength) {
    const size_t value_length = load_u16(at + 1);
    if (value_length > length - kTlvHeaderLength) break;
    if (at[0] == type) return {at + kTlvHeaderLength, value_length};
    at += kTlvHeaderLength + value_length;
    length -= kTlvHeaderLength + value_length;
  }
  return {};
}

}  // namespace pelmar::platform
