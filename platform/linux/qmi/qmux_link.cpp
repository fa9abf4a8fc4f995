#include "qmux_link.h"

#include <string>

#include "common_v01.h"
#include "environment.h"
#include "qmi_message.h"

namespace pelmar::platform {
namespace {

constexpr uint8_t kControlRequest = 0;
constexpr uint8_t kControlResponse = 1;
constexpr uint8_t kControlIndication = 2;

constexpr uint8_t kValueTlv = 0x01;

Value find_control_tlv(uint8_t type, const Frame& frame) {
  return find_tlv(type, frame.message + kControlHeaderLength, frame.length - kControlHeaderLength);
}

bool is_control(const Frame& frame, uint8_t flags) {
  return frame.service == kControlService && frame.message[0] == flags;
}

}  // namespace

bool load_control_indication(const Frame& frame, ControlIndication& indication) {
  if (!is_control(frame, kControlIndication)) return false;
  indication = {ControlIndication::kOther, 0, 0};
  switch (static_cast<ControlMessage>(load_u16(frame.message + 2))) {
    case ControlMessage::kSync:
      indication.event = ControlIndication::kRestarted;
      break;
    case ControlMessage::kRevokeClientId:
      if (const Value value = find_control_tlv(kValueTlv, frame); value.length >= 2) {
        indication = {ControlIndication::kRevoked, value.bytes[0], value.bytes[1]};
      }
      break;
    default:
      break;
  }
  return true;
}

std::string modem_socket() {
  return environment(kModemSocketVariable, kDefaultModemSocket);
}

std::string modem_device() {
  return environment("PELMAR_QMI_DEVICE", "/dev/cdc-wdm0");
}

bool QmuxLink::open(const Deadline& deadline) {
  if (!stream_.connect(modem_socket(), deadline)) return false;
  reader_ = FrameReader();
  partial_since_.reset();
  const std::string device = modem_device();
  const Bytes path(device.begin(), device.end());
  if (exchange(ControlMessage::kOpenProxy, path, deadline, nullptr) == Answer::kSuccess) {
    return true;
  }
  close();
  return false;
}

QmuxLink::Answer QmuxLink::get_services(std::vector<uint8_t>& services, const Deadline& deadline) {
  constexpr size_t kEntryLength = 5;  // u8 service, u16 major, u16 minor
  Bytes value;
  const Answer answer = exchange(ControlMessage::kGetVersionInfo, {}, deadline, &value);
  if (answer != Answer::kSuccess) return answer;
  services.clear();
  const size_t count = value.empty() ? 0 : value[0];
  for (size_t i = 0; i < count && 1 + (i + 1) * kEntryLength <= value.size(); ++i) {
    services.push_back(value[1 + i * kEntryLength]);
  }
  return answer;
}

QmuxLink::Answer QmuxLink::allocate_client_id(uint8_t service, uint8_t& client, const Deadline& deadline) {
  saw_restart_ = false;
  revoked_.clear();
  Bytes value;
  const Answer answer = exchange(ControlMessage::kAllocateClientId, {service}, deadline, &value);
  if (answer != Answer::kSuccess) return answer;
  if (value.size() < 2 || value[0] != service) return Answer::kFailure;
  if (value[1] == kNoClient || value[1] == kAllClients) return Answer::kFailure;
  client = value[1];
  if (take_restart()) {  // the id may be one of the restarted modem, or not
    send_release_client_id(service, client);
    return Answer::kNoAnswer;
  }
  return is_revoked(service, client) ? Answer::kNoAnswer : Answer::kSuccess;
}

QmuxLink::Answer QmuxLink::release_client_id(uint8_t service, uint8_t client, const Deadline& deadline) {
  return exchange(ControlMessage::kReleaseClientId, {service, client}, deadline, nullptr);
}

SendStatus QmuxLink::send_release_client_id(uint8_t service, uint8_t client) {
  return request(ControlMessage::kReleaseClientId, {service, client}, Deadline::now());
}

bool QmuxLink::take_revocation(uint8_t service) {
  const bool is_revoked = revoked_.lower_bound({service, 0}) != revoked_.upper_bound({service, UINT8_MAX});
  revoked_.clear();
  return is_revoked;
}

ReadStatus QmuxLink::read(const Deadline& deadline) {
  uint8_t* const space = reader_.space();
  size_t received = 0;
  const ReadStatus status = stream_.receive(space, reader_.room(), deadline, received);
  if (status == ReadStatus::kRead) reader_.add(received);
  return status;
}

bool QmuxLink::next(Frame& frame) {
  const bool is_whole = reader_.next(frame);
  if (is_whole || !reader_.has_partial_frame()) {
    partial_since_.reset();
  } else if (!partial_since_) {
    partial_since_ = Deadline::Clock::now();
  }
  return is_whole;
}

SendStatus QmuxLink::request(ControlMessage id, const Bytes& value, const Deadline& deadline) {
  const size_t tlvs_length = value.empty() ? 0 : kTlvHeaderLength + value.size();
  if (const SendStatus status = stream_.flush(deadline); status != SendStatus::kSent) return status;
  Bytes frame(kQmuxHeaderLength + kControlHeaderLength);
  store_qmux_header(frame.data(), kControlService, 0, kControlHeaderLength + tlvs_length);
  transaction_ = transaction_ == UINT8_MAX ? 1 : transaction_ + 1;
  uint8_t* const header = frame.data() + kQmuxHeaderLength;
  header[0] = kControlRequest;
  header[1] = transaction_;
  store_u16(header + 2, static_cast<uint16_t>(id));
  store_u16(header + 4, tlvs_length);
  if (!value.empty()) {
    frame.push_back(kValueTlv);
    frame.push_back(static_cast<uint8_t>(value.size()));
    frame.push_back(static_cast<uint8_t>(value.size() >> 8));
    frame.insert(frame.end(), value.begin(), value.end());
  }
  const SendStatus status = stream_.send(frame.data(), frame.size());
  return status == SendStatus::kBlocked ? stream_.flush(deadline) : status;
}

QmuxLink::Answer QmuxLink::exchange(ControlMessage id, const Bytes& value, const Deadline& deadline,
                                    Bytes* answer_value) {
  if (request(id, value, deadline) != SendStatus::kSent) return Answer::kNotSent;
  for (;;) {
    Frame frame;
    while (reader_.next(frame)) {
      ControlIndication indication;
      if (load_control_indication(frame, indication)) {
        saw_restart_ |= indication.event == ControlIndication::kRestarted;
        if (indication.event == ControlIndication::kRevoked) revoked_.insert({indication.service, indication.client});
      }
      if (!is_control(frame, kControlResponse) || frame.message[1] != transaction_ ||
          load_u16(frame.message + 2) != static_cast<uint16_t>(id)) {
        continue;
      }
      const Value result = find_control_tlv(kResultTlv, frame);
      if (result.length != 4) return Answer::kFailure;
      if (load_u16(result.bytes) != QMI_RESULT_SUCCESS_V01) {
        return load_u16(result.bytes + 2) == QMI_ERR_CLIENT_IDS_EXHAUSTED_V01 ? Answer::kClientIdsExhausted
                                                                              : Answer::kFailure;
      }
      const Value found = find_control_tlv(kValueTlv, frame);
      if (answer_value != nullptr) answer_value->assign(found.bytes, found.bytes + found.length);
      return Answer::kSuccess;
    }
    if (reader_.is_broken() || deadline.has_passed() || read(deadline) != ReadStatus::kRead) return Answer::kNoAnswer;
  }
}

}  // namespace pelmar::platform
