// Cuts the bytes that came from a modem into frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "qmux.h"

namespace pelmar::platform {

class FrameReader {
 public:
  FrameReader();

  // Where the next bytes from the stream go; there is always room, until the stream is broken.
  uint8_t* space();
  size_t room() const { return qmi::kMaxFrameLength - end_; }
  void add(size_t length) { end_ += length; }

  // The next whole frame; it is valid until the next space().
  bool next(qmi::Frame& frame);

  bool is_broken() const { return is_broken_; }

  // After next() returned false: bytes are there that are no whole frame.
  bool has_partial_frame() const { return begin_ < end_; }

 private:
  std::unique_ptr<uint8_t[]> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool is_broken_ = false;
};

}  // namespace pelmar::platform
