#include "qmux_frame.h"

#include <cstring>

#include "qmi_message.h"

namespace pelmar::platform {
namespace {

constexpr uint8_t kMarker = 0x01;
constexpr uint8_t kToModem = 0x00;
constexpr uint8_t kFromModem = 0x80;

}  // namespace

void store_qmux_header(uint8_t* at, uint8_t service, uint8_t client, size_t message_length) {
  at[0] = kMarker;
  store_u16(at + 1, kQmuxHeaderLength - 1 + message_length);
  at[3] = kToModem;
  at[4] = service;
  at[5] = client;
}

FrameReader::FrameReader() : buffer_(new uint8_t[kCapacity]) {}  // its bytes are written before they are read

uint8_t* FrameReader::space() {
  if (begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  return buffer_.get() + end_;
}

bool FrameReader::next(Frame& frame) {
  for (;;) {
    size_t length = 0;
    switch (look(length)) {
      case Look::kTooFewBytes:
        return false;
      case Look::kNoFrame:
        skip();
        continue;
      case Look::kFrame:
        break;
    }
    const uint8_t* const at = buffer_.get() + begin_;
    frame = {at[4], at[5], at + kQmuxHeaderLength, length - kQmuxHeaderLength};
    begin_ += length;
    in_step_ = true;
    return true;
  }
}

FrameReader::Look FrameReader::look(size_t& frame_length) const {
  const uint8_t* const at = buffer_.get() + begin_;
  const size_t available = end_ - begin_;
  if (available > 0 && at[0] != kMarker) return Look::kNoFrame;
  if (available < kQmuxHeaderLength) return Look::kTooFewBytes;

  frame_length = 1 + size_t{load_u16(at + 1)};
  const size_t message_header = at[4] == kControlService ? kControlHeaderLength : kMessageHeaderLength;
  if (at[3] != kFromModem || frame_length < kQmuxHeaderLength + message_header) return Look::kNoFrame;
  if (!in_step_) {
    const size_t headers = kQmuxHeaderLength + message_header;
    if (available < headers) return Look::kTooFewBytes;
    if (load_u16(at + headers - 2) != frame_length - headers) return Look::kNoFrame;
  }
  return available < frame_length ? Look::kTooFewBytes : Look::kFrame;
}

// To the next byte that could begin a frame.
void FrameReader::skip() {
  const uint8_t* const from = buffer_.get() + begin_ + 1;
  const auto* const marker = static_cast<const uint8_t*>(std::memchr(from, kMarker, end_ - begin_ - 1));
  begin_ = marker != nullptr ? static_cast<size_t>(marker - buffer_.get()) : end_;
  in_step_ = false;
}

}  // namespace pelmar::platform
