// Cutting a byte stream into frames.
#include "frame_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "scripted_modem.h"

namespace pelmar::platform {
namespace {

constexpr unsigned kBroken = 0xFFFFFF;

// Feeds bytes in pieces of `step` and returns the ids of the messages that came out, and kBroken behind the last one
// where the stream cannot be parsed any more.
std::vector<unsigned> ids_of(const Bytes& bytes, size_t step) {
  FrameReader reader;
  std::vector<unsigned> ids;
  for (size_t at = 0; at < bytes.size();) {
    uint8_t* const space = reader.space();
    const size_t length = std::min({step, bytes.size() - at, reader.room()});
    std::memcpy(space, bytes.data() + at, length);
    reader.add(length);
    at += length;
    qmi::Frame frame;
    while (reader.next(frame)) {
      if (const auto message = qmi::read_message(frame)) ids.push_back(message->id);
    }
  }
  if (reader.is_broken()) ids.push_back(kBroken);
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

TEST(QmuxFrame, EndsWhereNoFrameBegins) {
  Bytes toward_modem = indication(9);
  toward_modem[3] = 0x00;
  Bytes too_long = indication(1);
  ++too_long[1];  // takes the next marker
  const Bytes too_short = {0x01, 4, 0, 0x80, 3};
  for (const Bytes& begin : {join({indication(1), {0x55}}), join({indication(1), Bytes(300, 0x01)}),
                             join({indication(1), toward_modem}), too_long, join({indication(1), too_short})}) {
    for (const size_t step : {size_t{1}, size_t{4096}}) {
      const auto ids = ids_of(join({begin, indication(2), indication(3)}), step);
      EXPECT_EQ(ids, (std::vector<unsigned>{1, kBroken})) << step;
    }
  }
  const Bytes no_message = {0x01, 8, 0, 0x80, 3, 1, 4, 0, 0};
  EXPECT_EQ(ids_of(join({no_message, indication(2)}), 1), (std::vector<unsigned>{2}));
}

}  // namespace
}  // namespace pelmar::platform
