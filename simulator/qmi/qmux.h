// The bytes of QMUX: frames, and the headers of the messages in them. No sockets and no meaning here.
//
//   frame            0x01 | u16 length of all that follows the marker | flags | service | client id | message
//   control message  flags | u8 transaction | u16 message | u16 length of the TLVs | TLVs         (service 0)
//   service message  flags | u16 transaction | u16 message | u16 length of the TLVs | TLVs
//   TLV              u8 type | u16 length | value
//
// All little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "common_v01.h"

namespace pelmar::sim::qmux {

inline constexpr uint8_t kMarker = 0x01;
inline constexpr uint8_t kControlService = 0x00;
inline constexpr uint8_t kBroadcastClient = 0xFF;
inline constexpr uint8_t kResultTlv = 0x02;

inline constexpr size_t kFrameHeaderBytes = 6;
inline constexpr size_t kControlHeaderBytes = 6;
inline constexpr size_t kServiceHeaderBytes = 7;
inline constexpr size_t kTlvHeaderBytes = 3;
inline constexpr size_t kMaxFrameBytes = 1 + 0xFFFF;

enum class Kind : uint8_t { kRequest, kResponse, kIndication };

inline uint16_t read_u16(const uint8_t* bytes) {
  return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}
inline void write_u16(uint8_t* bytes, uint16_t value) {
  bytes[0] = static_cast<uint8_t>(value);
  bytes[1] = static_cast<uint8_t>(value >> 8);
}

struct Frame {
  uint8_t service;
  uint8_t client;
  std::span<const uint8_t> message;
};

// What stands at the front of a peer's bytes.
struct Front {
  enum class State { kIncomplete, kComplete, kBroken } state;
  size_t size = 0;                // of a complete frame
  Frame frame{};                  // of a complete frame
  std::string_view problem = {};  // of a broken one
};

// A broken front cannot be skipped: nothing says where the next frame begins.
Front parse_front(std::span<const uint8_t> bytes);

struct Message {
  uint16_t transaction;
  uint16_t id;
  std::span<const uint8_t> tlvs;
  bool is_whole;  // the stated length is the length that is there
};

// Nothing where the bytes hold no header of a request.
std::optional<Message> parse_request(const Frame& frame);

// The value of the first TLV of that type.
std::optional<std::span<const uint8_t>> find_tlv(std::span<const uint8_t> tlvs, uint8_t type);

// One outgoing frame under construction, in place. The bytes of finish() hold until the next start().
class FrameWriter {
 public:
  void start(uint8_t service, uint8_t client, Kind kind, uint16_t transaction, uint16_t message);

  std::span<uint8_t> room() { return std::span(bytes_).subspan(end_); }
  // Takes bytes written into room() as TLVs.
  void grow(size_t bytes) { end_ += bytes; }

  // What does not fit is left out.
  void add_tlvs(std::span<const uint8_t> tlvs);
  void add_tlv(uint8_t type, std::span<const uint8_t> value);
  void add_result(uint16_t error);

  // Puts the lengths in.
  std::span<const uint8_t> finish();

 private:
  std::array<uint8_t, kMaxFrameBytes> bytes_{};
  size_t tlvs_ = 0;
  size_t end_ = 0;
};

}  // namespace pelmar::sim::qmux
