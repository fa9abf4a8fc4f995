#include "qmi/qmux.h"

#include <algorithm>

namespace pelmar::sim::qmux {

namespace {

constexpr uint8_t kToModem = 0x00;
constexpr uint8_t kFromModem = 0x80;
constexpr size_t kLeastLength = kFrameHeaderBytes - 1;  // the length counts what follows the marker

constexpr size_t header_bytes(uint8_t service) {
  return service == kControlService ? kControlHeaderBytes : kServiceHeaderBytes;
}

// The flags byte of a message, by kind; the control service numbers them in its own way.
constexpr uint8_t kControlFlags[] = {0, 1, 2};
constexpr uint8_t kServiceFlags[] = {0, 2, 4};

}  // namespace

Front parse_front(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return {Front::State::kIncomplete};
  if (bytes[0] != kMarker) return {Front::State::kBroken, 0, {}, "sent bytes that begin no frame"};
  if (bytes.size() < 3) return {Front::State::kIncomplete};
  const size_t length = read_u16(&bytes[1]);
  if (length < kLeastLength) return {Front::State::kBroken, 0, {}, "sent a frame shorter than its header"};
  if (bytes.size() > 3 && bytes[3] != kToModem) {
    return {Front::State::kBroken, 0, {}, "sent a frame that is not for the modem"};
  }
  if (bytes.size() < 1 + length) return {Front::State::kIncomplete};
  const auto message = bytes.subspan(kFrameHeaderBytes, 1 + length - kFrameHeaderBytes);
  return {Front::State::kComplete, 1 + length, {bytes[4], bytes[5], message}};
}

std::optional<Message> parse_request(const Frame& frame) {
  const auto bytes = frame.message;
  const size_t header = header_bytes(frame.service);
  if (bytes.size() < header || bytes[0] != 0) return std::nullopt;
  const uint16_t transaction = frame.service == kControlService ? bytes[1] : read_u16(&bytes[1]);
  const auto tlvs = bytes.subspan(header);
  return Message{transaction, read_u16(&bytes[header - 4]), tlvs, tlvs.size() == read_u16(&bytes[header - 2])};
}

std::optional<std::span<const uint8_t>> find_tlv(std::span<const uint8_t> tlvs, uint8_t type) {
  while (tlvs.size() >= kTlvHeaderBytes) {
    const size_t length = read_u16(&tlvs[1]);
    if (tlvs.size() - kTlvHeaderBytes < length) return std::nullopt;
    if (tlvs[0] == type) return tlvs.subspan(kTlvHeaderBytes, length);
    tlvs = tlvs.subspan(kTlvHeaderBytes + length);
  }
  return std::nullopt;
}

void FrameWriter::start(uint8_t service, uint8_t client, Kind kind, uint16_t transaction, uint16_t message) {
  bytes_[0] = kMarker;
  bytes_[3] = kFromModem;
  bytes_[4] = service;
  bytes_[5] = client;
  uint8_t* header = &bytes_[kFrameHeaderBytes];
  tlvs_ = end_ = kFrameHeaderBytes + header_bytes(service);
  if (service == kControlService) {
    header[0] = kControlFlags[static_cast<size_t>(kind)];
    header[1] = static_cast<uint8_t>(transaction);
  } else {
    header[0] = kServiceFlags[static_cast<size_t>(kind)];
    write_u16(header + 1, transaction);
  }
  write_u16(&bytes_[tlvs_ - 4], message);
}

void FrameWriter::add_tlvs(std::span<const uint8_t> tlvs) {
  if (room().size() < tlvs.size()) return;
  std::copy(tlvs.begin(), tlvs.end(), &bytes_[end_]);
  end_ += tlvs.size();
}

void FrameWriter::add_tlv(uint8_t type, std::span<const uint8_t> value) {
  if (room().size() < kTlvHeaderBytes + value.size()) return;
  uint8_t* tlv = &bytes_[end_];
  tlv[0] = type;
  write_u16(tlv + 1, static_cast<uint16_t>(value.size()));
  std::copy(value.begin(), value.end(), tlv + kTlvHeaderBytes);
  end_ += kTlvHeaderBytes + value.size();
}

void FrameWriter::add_result(uint16_t error) {
  uint8_t value[4];
  write_u16(value, error == QMI_ERR_NONE_V01 ? QMI_RESULT_SUCCESS_V01 : QMI_RESULT_FAILURE_V01);
  write_u16(value + 2, error);
  add_tlv(kResultTlv, value);
}

std::span<const uint8_t> FrameWriter::finish() {
  write_u16(&bytes_[tlvs_ - 2], static_cast<uint16_t>(end_ - tlvs_));
  write_u16(&bytes_[1], static_cast<uint16_t>(end_ - 1));
  return {bytes_.data(), end_};
}

}  // namespace pelmar::sim::qmux
