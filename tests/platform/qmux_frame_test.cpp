// Cutting a byte stream into frames.
#include "qmux_frame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "scripted_modem.h"

namespace pelmar::platform {
namespace {

// Feeds bytes in pieces of `step` and answers the messages that came out, by their ids.
std::vector<unsigned> ids_of(const Bytes& bytes, size_t step) {
  FrameReader reader;
  std::vector<unsigned> ids;
  for (size_t at = 0; at < bytes.size();) {
    uint8_t* const space = reader.space();
    const size_t length = std::min({step, bytes.size() - at, reader.room()});
    std::memcpy(space, bytes.data() + at, length);
    reader.add(length);
    at += length;
    Frame frame;
    while (reader.next(frame)) ids.push_back(frame.message[3] | frame.message[4] << 8u);
  }
  return ids;
}

Bytes indication(uint16_t id, size_t length = 0) {
  return ScriptedModem::frame(3, 1, ScriptedModem::message(4, 0, id, Bytes(length, 0x01)));
}

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

TEST(QmuxFrame, CutsWhateverThePieces) {
  const Bytes stream = join({indication(1), indication(2, 65523), indication(3, 700), indication(4)});
  for (const size_t step : {size_t{1}, size_t{7}, size_t{4096}, size_t{65000}}) {
    EXPECT_EQ(ids_of(stream, step), (std::vector<unsigned>{1, 2, 3, 4})) << step;
  }
}

TEST(QmuxFrame, FindsTheNextFrameBehindGarbage) {
  Bytes toward_modem = indication(9);
  toward_modem[3] = 0x00;
  const Bytes too_short = {0x01, 8, 0, 0x80, 3, 1, 4, 0, 0};
  for (const Bytes& garbage : {Bytes{0x55}, Bytes(300, 0x01), toward_modem, too_short, Bytes{0x01, 0xFF, 0xFF, 0x7F}}) {
    for (const size_t step : {size_t{1}, size_t{4096}}) {
      EXPECT_EQ(ids_of(join({indication(1), garbage, indication(2), indication(3)}), step),
                (std::vector<unsigned>{1, 2, 3}));
    }
  }
}

}  // namespace
}  // namespace pelmar::platform
