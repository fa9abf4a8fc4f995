#include "qmux.h"

#include <algorithm>

#include "common_v01.h"

namespace pelmar::qmi {
namespace {

constexpr uint8_t kMarker = 0x01;

constexpr size_t header_length(uint8_t service) {
  return service == kControlService ? kControlHeaderLength : kMessageHeaderLength;
}

// The factor between a MessageKind and its byte on the wire: CTL has 0, 1, 2, every other service 0, 2, 4.
constexpr unsigned kind_factor(uint8_t service) {
  return service == kControlService ? 1 : 2;
}

}  // namespace

Front read_front(std::span<const uint8_t> bytes, Direction direction) {
  if (bytes.empty()) return {Front::State::kIncomplete};
  if (bytes[0] != kMarker) return {.state = Front::State::kBroken, .problem = "sent bytes that begin no frame"};
  if (bytes.size() < 3) return {Front::State::kIncomplete};
  const size_t length = 1 + size_t{load_u16(&bytes[1])};
  if (length < kFrameHeaderLength)
    return {.state = Front::State::kBroken, .problem = "sent a frame shorter than its header"};
  if (bytes.size() > 3 && bytes[3] != static_cast<uint8_t>(direction)) {
    return {.state = Front::State::kBroken, .problem = "sent a frame of the other direction"};
  }
  if (bytes.size() < length) return {Front::State::kIncomplete};
  return {Front::State::kComplete,
          length,
          {bytes[4], bytes[5], bytes.subspan(kFrameHeaderLength, length - kFrameHeaderLength)}};
}

std::optional<Message> read_message(const Frame& frame) {
  const auto bytes = frame.message;
  const size_t header = header_length(frame.service);
  if (bytes.size() < header) return std::nullopt;
  const unsigned factor = kind_factor(frame.service);
  if (bytes[0] % factor != 0 || bytes[0] / factor > static_cast<unsigned>(MessageKind::kIndication))
    return std::nullopt;
  const uint16_t transaction = frame.service == kControlService ? bytes[1] : load_u16(&bytes[1]);
  const auto tlvs = bytes.subspan(header);
  return Message{static_cast<MessageKind>(bytes[0] / factor), transaction, load_u16(&bytes[header - 4]),
                 tlvs.size() == load_u16(&bytes[header - 2]), tlvs};
}

void store_frame_header(uint8_t* at, Direction direction, uint8_t service, uint8_t client, size_t message_length) {
  at[0] = kMarker;
  store_u16(at + 1, kFrameHeaderLength - 1 + message_length);
  at[3] = static_cast<uint8_t>(direction);
  at[4] = service;
  at[5] = client;
}

void store_message_header(uint8_t* at, MessageKind kind, uint16_t transaction, uint16_t id, size_t tlvs_length) {
  at[0] = static_cast<uint8_t>(static_cast<unsigned>(kind) * 2);
  store_u16(at + 1, transaction);
  store_u16(at + 3, id);
  store_u16(at + 5, tlvs_length);
}

FrameWriter::FrameWriter(Direction direction, std::span<uint8_t> bytes)
    : direction_(direction), bytes_(bytes.first(std::min(bytes.size(), kMaxFrameLength))) {}

void FrameWriter::start(uint8_t service, uint8_t client, MessageKind kind, uint16_t transaction, uint16_t id) {
  store_frame_header(bytes_.data(), direction_, service, client, 0);
  tlvs_ = end_ = kFrameHeaderLength + header_length(service);
  uint8_t* const header = &bytes_[kFrameHeaderLength];
  header[0] = static_cast<uint8_t>(static_cast<unsigned>(kind) * kind_factor(service));
  store_u16(header + 1, transaction);  // of CTL's, which has one byte, the id overwrites the second
  store_u16(&bytes_[tlvs_ - 4], id);
}

void FrameWriter::add_tlvs(std::span<const uint8_t> tlvs) {
  if (room().size() < tlvs.size()) return;
  std::copy(tlvs.begin(), tlvs.end(), room().begin());
  end_ += tlvs.size();
}

void FrameWriter::add_tlv(uint8_t type, std::span<const uint8_t> value) {
  if (room().size() < kTlvHeaderLength + value.size()) return;
  uint8_t* const tlv = room().data();
  tlv[0] = type;
  store_u16(tlv + 1, value.size());
  std::copy(value.begin(), value.end(), tlv + kTlvHeaderLength);
  end_ += kTlvHeaderLength + value.size();
}

void FrameWriter::add_result(uint16_t error) {
  uint8_t value[kResultLength];
  store_u16(value, error == QMI_ERR_NONE_V01 ? QMI_RESULT_SUCCESS_V01 : QMI_RESULT_FAILURE_V01);
  store_u16(value + 2, error);
  add_tlv(kResultTlv, value);
}

std::span<const uint8_t> FrameWriter::finish() {
  store_u16(&bytes_[tlvs_ - 2], end_ - tlvs_);
  store_u16(&bytes_[1], end_ - 1);
  return bytes_.first(end_);
}

}  // namespace pelmar::qmi
