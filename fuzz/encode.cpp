// The encoder, over structures with any content.
//
//   input: u8 message (by the catalogue), u16 room, the structure's first bytes (the rest is zero)
//
// What holds whatever the structure: nothing outside the exact blocks is touched, only counts and texts above their
// maxima are refused, and what is encoded decodes and gives the same bytes again.
#include <algorithm>

#include "messages.h"

using namespace pelmar::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const CatalogueMessage& message = pick_message(data[0]);
  const size_t room = static_cast<size_t>(data[1] | data[2] << 8);
  Bytes structure(message.structure_length);
  std::copy_n(data + 3, std::min(size - 3, structure.size()), structure.begin());

  Bytes wire;
  const int32_t error = encode(message, structure, message.max_wire_length, wire);
  require(error == QMI_IDL_LIB_NO_ERR || error == QMI_IDL_LIB_ARRAY_TOO_BIG);
  Bytes cut;
  const int32_t cut_error = encode(message, structure, std::min<size_t>(room, message.max_wire_length), cut);
  if (error != QMI_IDL_LIB_NO_ERR) return 0;
  require(room >= wire.size() ? cut == wire : cut_error == QMI_IDL_LIB_BUFFER_TOO_SMALL);

  Bytes decoded;
  require(decode(message, wire, decoded) == QMI_IDL_LIB_NO_ERR);
  Bytes again;
  require(encode(message, decoded, message.max_wire_length, again) == QMI_IDL_LIB_NO_ERR);
  require(again == wire);
  return 0;
}
