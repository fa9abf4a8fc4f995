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
  while (has_partial_frame() && !is_broken_) {
    const uint8_t* const at = buffer_.get() + begin_;
    const size_t available = end_ - begin_;
    is_broken_ = at[0] != kMarker;
    if (is_broken_ || available < kQmuxHeaderLength) return false;

    const size_t length = 1 + size_t{load_u16(at + 1)};
    is_broken_ = length < kQmuxHeaderLength || at[3] != kFromModem;
    if (is_broken_ || available < length) return false;

    begin_ += length;
    frame = {at[4], at[5], at + kQmuxHeaderLength, length - kQmuxHeaderLength};
    if (frame.length >= (frame.service == kControlService ? kControlHeaderLength : kMessageHeaderLength)) return true;
  }
  return false;
}

}  // namespace pelmar::platform
