// The framework's reader: frames out of the modem's byte stream, messages and CTL indications out of frames.
//
//   input: u8 how the bytes are cut into receipts (by a sequence made from it), the modem's bytes
//
// What holds whatever the bytes: every view lies inside what was read, and the same frames come out however the stream
// is cut.
#include <algorithm>

#include "frame_reader.h"
#include "messages.h"
#include "qmux_link.h"

using namespace pelmar::fuzz;
using namespace pelmar::platform;

namespace {

void read_frame(const pelmar::qmi::Frame& frame) {
  const Bytes copy(frame.message.begin(), frame.message.end());
  const auto message = pelmar::qmi::read_message({frame.service, frame.client, copy});
  if (!message) return;
  read_control_indication(*message);
  require(message->tlvs.data() >= copy.data());
  require(message->tlvs.data() + message->tlvs.size() == copy.data() + copy.size());
}

// What the stream says, as one row of bytes.
class Transcript {
 public:
  void add(const pelmar::qmi::Frame& frame) {
    bytes_.insert(bytes_.end(), {frame.service, frame.client});
    bytes_.insert(bytes_.end(), frame.message.begin(), frame.message.end());
  }
  bool operator==(const Transcript&) const = default;

 private:
  Bytes bytes_;
};

template <typename NextLength>
Transcript read_stream(std::span<const uint8_t> stream, NextLength next_length) {
  Transcript transcript;
  FrameReader reader;
  while (!stream.empty() && !reader.is_broken()) {
    uint8_t* const space = reader.space();
    const size_t length = std::min({next_length(), reader.room(), stream.size()});
    require(length > 0);
    std::copy_n(stream.begin(), length, space);
    reader.add(length);
    stream = stream.subspan(length);
    pelmar::qmi::Frame frame;
    while (reader.next(frame)) {
      read_frame(frame);
      transcript.add(frame);
    }
  }
  return transcript;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::span<const uint8_t> stream(data + 1, size - 1);
  const Transcript whole = read_stream(stream, [] { return size_t{UINT16_MAX}; });
  uint32_t state = data[0];
  const Transcript cut = read_stream(stream, [&state] {
    state = state * 1664525 + 1013904223;
    return size_t{1} + (state >> 24) % 13;
  });
  require(whole == cut);
  return 0;
}
