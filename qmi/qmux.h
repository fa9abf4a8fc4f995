// QMUX: how messages of many services and clients share one byte stream, and the headers of these messages.
//
//   frame            u8 0x01, u16 length of all that follows the first byte, u8 direction, u8 service, u8 client id,
//                    message
//   service message  u8 kind, u16 transaction, u16 message id, u16 length of the TLVs, TLVs
//   control message  u8 kind, u8 transaction, u16 message id, u16 length of the TLVs, TLVs     (service 0, CTL)
//
// All integers are little-endian. Indications have transaction 0, all other messages one that is not 0. The bytes that
// are read come from another process and may be anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "qmi_tlv.h"

namespace pelmar::qmi {

inline constexpr uint8_t kControlService = 0;
inline constexpr uint8_t kNoClient = 0;
inline constexpr uint8_t kAllClients = 0xFF;

inline constexpr size_t kFrameHeaderLength = 6;
inline constexpr size_t kControlHeaderLength = 6;
inline constexpr size_t kMessageHeaderLength = 7;
inline constexpr size_t kMaxFrameLength = 1 + UINT16_MAX;

enum class Direction : uint8_t { kToModem = 0x00, kFromModem = 0x80 };

struct Frame {
  uint8_t service;
  uint8_t client;
  std::span<const uint8_t> message;
};

// What stands at the front of received bytes.
struct Front {
  enum class State { kIncomplete, kComplete, kBroken } state;
  size_t length = 0;              // of a complete frame
  Frame frame{};                  // of a complete frame
  std::string_view problem = {};  // of a broken one
};

// A frame's length gives the start of the next frame. If no frame starts there, a length was wrong, and a search for
// another start could take message bytes for a frame, so the caller must close the stream.
Front read_front(std::span<const uint8_t> bytes, Direction direction);

enum class MessageKind : uint8_t { kRequest, kResponse, kIndication };

struct Message {
  MessageKind kind;
  uint16_t transaction;
  uint16_t id;
  bool length_agrees;  // the header's length is that of the TLVs that arrived
  std::span<const uint8_t> tlvs;
};

// Nothing where the bytes are too few or begin no message.
std::optional<Message> read_message(const Frame& frame);

// Writes the header in front of `message_length` bytes of message.
void store_frame_header(uint8_t* at, Direction direction, uint8_t service, uint8_t client, size_t message_length);

// Writes the header of a service's message in front of `tlvs_length` bytes of TLVs.
void store_message_header(uint8_t* at, MessageKind kind, uint16_t transaction, uint16_t id, size_t tlvs_length);

// One outgoing frame under construction, in the given bytes, which have room for the headers at least. What finish()
// returns holds until the next start().
class FrameWriter {
 public:
  FrameWriter(Direction direction, std::span<uint8_t> bytes);

  void start(uint8_t service, uint8_t client, MessageKind kind, uint16_t transaction, uint16_t id);

  std::span<uint8_t> room() { return bytes_.subspan(end_); }
  // Takes bytes written into room() as TLVs.
  void grow(size_t length) { end_ += length; }

  // These add nothing if what they add does not fit in room().
  void add_tlvs(std::span<const uint8_t> tlvs);
  void add_tlv(uint8_t type, std::span<const uint8_t> value);
  void add_result(uint16_t error);

  // Writes the lengths of frame and message, and returns the frame.
  std::span<const uint8_t> finish();

 private:
  const Direction direction_;
  const std::span<uint8_t> bytes_;
  size_t tlvs_ = 0;
  size_t end_ = 0;
};

}  // namespace pelmar::qmi
