#include "frame_reader.h"

#include <cstring>

namespace pelmar::platform {

FrameReader::FrameReader() : buffer_(new uint8_t[qmi::kMaxFrameLength]) {}  // bytes are written before they are read

uint8_t* FrameReader::space() {
  if (begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  return buffer_.get() + end_;
}

bool FrameReader::next(qmi::Frame& frame) {
  if (is_broken_) return false;
  const qmi::Front front = qmi::read_front({buffer_.get() + begin_, end_ - begin_}, qmi::Direction::kFromModem);
  is_broken_ = front.state == qmi::Front::State::kBroken;
  if (front.state != qmi::Front::State::kComplete) return false;
  begin_ += front.length;
  frame = front.frame;
  return true;
}

}  // namespace pelmar::platform
