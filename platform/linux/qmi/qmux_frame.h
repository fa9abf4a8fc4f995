// QMUX framing: how messages of many services and clients share one byte stream.
//
//   u8 0x01, u16 length of all that follows the first byte, u8 flags (0x00 to the modem, 0x80 from it), u8 service,
//   u8 client id (0xFF: all clients), message
//
// Service 0 is CTL, whose messages have a shorter header: u8 flags (0 request, 1 response, 2 indication),
// u8 transaction, u16 message id, u16 length, TLVs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace pelmar::platform {

inline constexpr size_t kQmuxHeaderLength = 6;
inline constexpr size_t kControlHeaderLength = 6;
inline constexpr uint8_t kControlService = 0;
inline constexpr uint8_t kAllClients = 0xFF;

// Writes the header in front of `message_length` bytes of message.
void store_qmux_header(uint8_t* at, uint8_t service, uint8_t client, size_t message_length);

struct Frame {
  uint8_t service;
  uint8_t client;
  const uint8_t* message;
  size_t length;  // of the message
};

// Cuts the bytes that came from a modem into frames.
//
// Where a frame must begin, its own length is trusted. Bytes that begin no frame are skipped, and after them only
// what has two lengths that agree, the frame's and the message's, counts as a frame.
class FrameReader {
 public:
  FrameReader();

  // Where the next bytes from the stream go; there is always room.
  uint8_t* space();
  size_t room() const { return kCapacity - end_; }
  void add(size_t length) { end_ += length; }

  // The next whole frame; it is valid until the next space().
  bool next(Frame& frame);

  // After next() returned false: bytes are there that are no whole frame.
  bool has_partial_frame() const { return begin_ < end_; }

 private:
  static constexpr size_t kCapacity = 65536;  // of the longest frame

  enum class Look { kFrame, kTooFewBytes, kNoFrame };
  Look look(size_t& frame_length) const;
  void skip();

  std::unique_ptr<uint8_t[]> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool in_step_ = true;  // a frame begins at begin_
};

}  // namespace pelmar::platform
