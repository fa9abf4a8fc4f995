// The decoder and the encoder, over every message of every service.
//
//   input: see messages.h. The change applies to the message's wire bytes, and to its structure.
//
// With any bytes: no access is outside the blocks, which have the exact sizes. A decoded message is within its maxima,
// so it can be encoded within the message's largest size. The encoder refuses only counts and texts above their maxima.
// An encoded message decodes, and encodes to the same bytes again in exactly their size.
//
// The fields by name are those of any bytes too, and make valid JSON; a message that decodes has no bytes in a TLV with
// a name that the walk of the fields leaves undescribed.
#include <nlohmann/json.hpp>
#include <string>

#include "message_fields.h"
#include "message_text.h"
#include "messages.h"

using namespace pelmar::fuzz;

namespace {

void require_round_trip(const Message& message, const Bytes& structure) {
  Bytes wire, cut, decoded, again;
  require(encode(message, structure, message.max_wire_length, wire) == QMI_IDL_LIB_NO_ERR);
  require(wire.empty() || encode(message, structure, wire.size() - 1, cut) == QMI_IDL_LIB_BUFFER_TOO_SMALL);
  require(decode(message, wire, decoded) == QMI_IDL_LIB_NO_ERR);
  require(encode(message, decoded, wire.size(), again) == QMI_IDL_LIB_NO_ERR && again == wire);
}

void require_fields(const Message& message, const Bytes& wire, bool decodes) {
  const auto service = static_cast<uint8_t>(message.service->service_id);
  const pelmar::qmi::Message parsed = {static_cast<pelmar::qmi::MessageKind>(message.type), 1, message.id, true, wire};
  bool has_name = false;
  pelmar::qmi::walk_fields(service, parsed, [&](const pelmar::qmi::Field& field) {
    if (field.form == pelmar::qmi::Field::Form::kTlv) has_name = field.name != nullptr;
    require(field.is_described || !has_name || !decodes);
  });
  pelmar::qmi::CapturedMessage captured;
  pelmar::qmi::Message control = parsed;
  control.id = static_cast<uint16_t>(0x21 + wire.size() % 4);  // of CTL, whose messages the codec does not have
  for (const auto& [number, shown] : {std::pair(service, parsed), {uint8_t{0}, control}}) {
    captured.frame.service = number;
    std::string json;
    pelmar::qmi::append_json(json, {captured, {}, shown, {}, {}}, true);
    require(nlohmann::json::accept(json));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Input input(data, size);
  const Message& message = message_of(input, input.choice & 1);
  Bytes structure, wire;
  const Bytes changed = input.change(make_wire(message, input.most));
  const bool decodes = decode(message, changed, structure) == QMI_IDL_LIB_NO_ERR;
  if (decodes) require_round_trip(message, structure);
  require_fields(message, changed, decodes);

  structure = input.change(make_structure(message, input.most));
  structure.resize(message.structure_length);
  const int32_t error = encode(message, structure, message.max_wire_length, wire);
  require(error == QMI_IDL_LIB_NO_ERR || error == QMI_IDL_LIB_ARRAY_TOO_BIG);
  if (error == QMI_IDL_LIB_NO_ERR) require_round_trip(message, structure);
  return 0;
}
