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
inline constexpr uint8_t kNoClient = 0;
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
// Only a frame's length shows where the next one begins. Where none begins there, a length was wrong, and any
// search for another beginning could take a part of a message for a frame: the stream is broken for good.
class FrameReader {
 public:
  FrameReader();

  // Where the next bytes from the stream go; there is always room, until the stream is broken.
  uint8_t* space();
  size_t room() const { return kCapacity - end_; }
  void add(size_t length) { end_ += length; }

  // The next whole frame that has room for its message's header; it is valid until the next space().
  bool next(Frame& frame);

  bool is_broken() const { return is_broken_; }

  // After next() returned false: bytes are there that are no whole frame.
  bool has_partial_frame() const { return begin_ < end_; }

 private:
  static constexpr size_t kCapacity = 65536;  // of the longest frame

  std::unique_ptr<uint8_t[]> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool is_broken_ = false;
};

}  // namespace pelmar::platform
