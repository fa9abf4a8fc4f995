#include "frames.h"

namespace pelmar::fuzz {
namespace {

void append_u16(Bytes& bytes, size_t value) {
  bytes.insert(bytes.end(), {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)});
}

Bytes frame_of(Direction direction, uint8_t service, uint8_t client, const Bytes& message) {
  Bytes frame = {0x01};
  append_u16(frame, 5 + message.size());
  frame.insert(frame.end(), {static_cast<uint8_t>(direction), service, client});
  frame.insert(frame.end(), message.begin(), message.end());
  return frame;
}

}  // namespace

Bytes control_frame(ControlKind kind, uint8_t transaction, uint16_t id, uint8_t tlv, Bytes value) {
  Bytes message = {static_cast<uint8_t>(kind), transaction};
  append_u16(message, id);
  append_u16(message, 3 + value.size());
  message.push_back(tlv);
  append_u16(message, value.size());
  message.insert(message.end(), value.begin(), value.end());
  return frame_of(kind == ControlKind::kRequest ? Direction::kToModem : Direction::kFromModem, 0, 0, message);
}

Bytes service_frame(const CatalogueMessage& message, const Bytes& tlvs) {
  constexpr uint8_t kFlags[] = {0, 2, 4};
  Bytes bytes = {kFlags[message.type]};
  append_u16(bytes, message.type == QMI_IDL_INDICATION ? 0 : 1);
  append_u16(bytes, message.id);
  append_u16(bytes, tlvs.size());
  bytes.insert(bytes.end(), tlvs.begin(), tlvs.end());
  const Direction direction = message.type == QMI_IDL_REQUEST ? Direction::kToModem : Direction::kFromModem;
  return frame_of(direction, static_cast<uint8_t>(message.service->service_id), kClient, bytes);
}

}  // namespace pelmar::fuzz
