// The decoder, over every message of every service.
//
//   input: u8 message (by the catalogue), wire bytes
//
// What holds whatever the bytes: nothing outside the exact blocks is touched; what decodes keeps the maxima of its
// description, can be encoded within the message's largest size, and decodes from there to the same structure.
#include <algorithm>
#include <cstring>

#include "messages.h"

using namespace pelmar::fuzz;

namespace {

class DecodedStructure final : public StructureVisitor {
 public:
  void on_valid_flag(uint8_t& flag) override { require(flag <= 1); }

  void on_count(uint8_t* count, uint32_t maximum) override {
    uint32_t value;
    std::memcpy(&value, count, sizeof value);
    require(value <= maximum);
  }

  // A text ends at its first terminator; what a sender put behind it does not survive encoding.
  void on_text(std::span<uint8_t> text) override {
    const auto end = std::find(text.begin(), text.end(), 0);
    require(end != text.end());
    std::fill(end, text.end(), 0);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const CatalogueMessage& message = pick_message(data[0]);
  Bytes structure;
  if (decode(message, {data + 1, size - 1}, structure) != QMI_IDL_LIB_NO_ERR) return 0;
  DecodedStructure rules;
  walk(message, structure, rules);

  Bytes wire;
  require(encode(message, structure, message.max_wire_length, wire) == QMI_IDL_LIB_NO_ERR);
  Bytes again;
  require(decode(message, wire, again) == QMI_IDL_LIB_NO_ERR);
  require(again == structure);
  return 0;
}
