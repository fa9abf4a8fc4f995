// The decoder and the encoder, over every message of every service.
//
//   input: u8 message (by the catalogue), u16 room, wire bytes or the structure's first bytes (the rest is zero)
//
// What holds whatever the bytes: nothing outside the exact blocks is touched; what decodes keeps to its maxima, so that
// it can be encoded within the message's largest size; only counts and texts above their maxima are refused; and what
// is encoded decodes and gives the same bytes again, in exactly the room that they need.
#include <algorithm>

#include "messages.h"

using namespace pelmar::fuzz;

namespace {

void require_round_trip(const Message& message, const Bytes& structure, size_t room) {
  Bytes wire, cut, decoded, again;
  require(encode(message, structure, message.max_wire_length, wire) == QMI_IDL_LIB_NO_ERR);
  const int32_t cut_error = encode(message, structure, std::min<size_t>(room, message.max_wire_length), cut);
  require(room >= wire.size() ? cut == wire : cut_error == QMI_IDL_LIB_BUFFER_TOO_SMALL);
  require(decode(message, wire, decoded) == QMI_IDL_LIB_NO_ERR);
  require(encode(message, decoded, message.max_wire_length, again) == QMI_IDL_LIB_NO_ERR);
  require(again == wire);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const Message& message = catalogue()[data[0] % catalogue().size()];
  const size_t room = static_cast<size_t>(data[1] | data[2] << 8);
  const std::span bytes(data + 3, size - 3);

  Bytes structure;
  if (decode(message, bytes, structure) == QMI_IDL_LIB_NO_ERR) require_round_trip(message, structure, room);

  Bytes wire;
  structure.assign(message.structure_length, 0);
  std::copy_n(bytes.begin(), std::min(bytes.size(), structure.size()), structure.begin());
  const int32_t error = encode(message, structure, message.max_wire_length, wire);
  require(error == QMI_IDL_LIB_NO_ERR || error == QMI_IDL_LIB_ARRAY_TOO_BIG);
  if (error == QMI_IDL_LIB_NO_ERR) require_round_trip(message, structure, room);
  return 0;
}
