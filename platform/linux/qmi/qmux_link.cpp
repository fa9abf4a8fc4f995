#include "qmux_link.h"

#include <sys/stat.h>

#include <cstring>

#include "common_v01.h"
#include "modem_device.h"
#include "qmi_proxy.h"
#include "unix_socket.h"

namespace pelmar::platform {

constexpr uint8_t kValueTlv = 0x01;

FrameReader::FrameReader() : buffer_(new uint8_t[qmi::kMaxFrameLength]) {}  // bytes are written before they are read

uint8_t* FrameReader::space() {
  if (begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  return buffer_.get() + end_;
}

bool FrameReader::next(qmi::Frame& frame) {
  if (is_broken_) return false;
  const qmi::Front front = qmi::read_front({buffer_.get() + begin_, end_ - begin_}, qmi::Direction::kFromModem);
  is_broken_ = front.state == qmi::Front::State::kBroken;
  if (front.state != qmi::Front::State::kComplete) return false;
  begin_ += front.length;
  frame = front.frame;
  return true;
}

ControlIndication read_control_indication(const qmi::Message& message) {
  if (message.kind == qmi::MessageKind::kIndication) {
    if (message.id == ctl::kSync) return {ControlIndication::kRestarted};
    const auto value = qmi::find_tlv(message.tlvs, kValueTlv);
    if (message.id == ctl::kRevokeClientId && value && value->size() >= 2) {
      return {ControlIndication::kRevoked, (*value)[0], (*value)[1]};
    }
  }
  return {ControlIndication::kOther};
}

Problem QmuxLink::connect(const ModemAddress& address, const Deadline& deadline) {
  switch (address.kind) {
    case ModemAddress::Kind::kDevice: {
      device_ = connect_device(address.path);
      stream_.adopt(std::move(device_.socket));
      const Problem& problem = device_.problem;
      if (problem && !problem.is_temporary) report_problem("Cannot open " + address.path + ": " + problem.text);
      return problem;
    }
    case ModemAddress::Kind::kProxy: {
      Problem absence = stream_.connect(kProxySocket, deadline);
      if (!absence.is_temporary) return absence;
      const Problem problem = start_qmi_proxy(address.path, deadline);
      if (problem && !problem.is_temporary) report_problem(problem.text);
      return problem ? problem : stream_.connect(kProxySocket, deadline);
    }
    default: {
      struct stat found {};
      const bool is_file = !is_abstract(address.path) && ::stat(address.path.c_str(), &found) == 0;
      if (is_file && !S_ISSOCK(found.st_mode)) return {"it is neither a socket nor a character device"};
      return stream_.connect(address.path, deadline);
    }
  }
}

Problem QmuxLink::open(const ModemAddress& named, const Deadline& deadline) {
  const ModemAddress address = look_at_path(named);
  if (Problem problem = connect(address, deadline)) return problem;
  reader_ = FrameReader();
  partial_since_.reset();
  if (address.kind == ModemAddress::Kind::kDevice) return {};
  const bool is_proxy = address.kind == ModemAddress::Kind::kProxy;
  trace_ = TraceLink(is_proxy ? "proxy:" + address.path : address.path, TraceLink::Sharing::kShared);
  const std::string device = is_proxy ? address.path : kDefaultDevice;
  const Bytes path(device.begin(), device.end());
  const Outcome outcome = exchange(ctl::kOpenProxy, path, deadline, nullptr);
  if (outcome == Outcome::kSuccess) return {};
  Problem problem = {"the process that serves it does not respond to QMUX messages", true};
  if (outcome == Outcome::kFailure) problem = {"the proxy cannot open " + device, true};
  if (is_proxy && !is_character_device(device)) problem = {"there is no character device " + device, true};
  if (const std::string refusal = stream_.describe_refusal(); !refusal.empty()) problem = {refusal};
  close();
  return problem;
}

void QmuxLink::close() {
  stream_.close();
  trace_ = {};
  device_ = {};
  is_unsent_ = false;
}

SendStatus QmuxLink::send(std::span<const uint8_t> frame) {
  trace_.write_sent(frame);
  if (!device_.device) return stream_.send(frame.data(), frame.size());
  const SendStatus status = send_to_device(device_, frame);
  is_unsent_ = status == SendStatus::kBlocked;
  return status;
}

SendStatus QmuxLink::flush(const Deadline& deadline) {
  if (!device_.device) return stream_.flush(deadline);
  const SendStatus status = is_unsent_ ? flush_device(device_, deadline) : SendStatus::kSent;
  if (status == SendStatus::kSent) is_unsent_ = false;
  return status;
}

QmuxLink::Outcome QmuxLink::get_services(std::vector<ListedService>& services, const Deadline& deadline) {
  constexpr size_t kEntryLength = 5;  // u8 service, u16 major, u16 minor
  Bytes value;
  const Outcome outcome = exchange(ctl::kGetVersionInfo, {}, deadline, &value);
  if (outcome != Outcome::kSuccess) return outcome;
  const size_t count = value.empty() ? 0 : value[0];
  for (size_t i = 0; i < count && 1 + (i + 1) * kEntryLength <= value.size(); ++i) {
    const uint8_t* const entry = &value[1 + i * kEntryLength];
    services.push_back({entry[0], 0, std::nullopt, qmi::load_u16(entry + 1), qmi::load_u16(entry + 3)});
  }
  return outcome;
}

QmuxLink::Outcome QmuxLink::allocate_client_id(uint8_t service, uint8_t& client, const Deadline& deadline) {
  saw_restart_ = false;
  revoked_.clear();
  Bytes value;
  const Outcome outcome = exchange(ctl::kAllocateClientId, {service}, deadline, &value);
  if (outcome != Outcome::kSuccess) return outcome;
  if (value.size() < 2 || value[0] != service) return Outcome::kFailure;
  if (value[1] == qmi::kNoClient || value[1] == qmi::kAllClients) return Outcome::kFailure;
  client = value[1];
  if (take_restart()) {  // the modem may have allocated the id before or after it
    send_release_client_id(service, client);
    return Outcome::kNoResponse;
  }
  return is_revoked(service, client) ? Outcome::kNoResponse : Outcome::kSuccess;
}

QmuxLink::Outcome QmuxLink::release_client_id(uint8_t service, uint8_t client, const Deadline& deadline) {
  return exchange(ctl::kReleaseClientId, {service, client}, deadline, nullptr);
}

SendStatus QmuxLink::send_release_client_id(uint8_t service, uint8_t client) {
  return request(ctl::kReleaseClientId, {service, client}, Deadline::now());
}

bool QmuxLink::take_revocation(uint8_t service) {
  const bool is_revoked = revoked_.lower_bound({service, 0}) != revoked_.upper_bound({service, UINT8_MAX});
  revoked_.clear();
  return is_revoked;
}

ReadStatus QmuxLink::read(const Deadline& deadline) {
  uint8_t* const space = reader_.space();
  size_t received = 0;
  const ReadStatus status =
      device_.device ? receive_from_device(device_, stream_.descriptor(), {space, reader_.room()}, deadline, received)
                     : stream_.receive(space, reader_.room(), deadline, received);
  if (status == ReadStatus::kRead) reader_.add(received);
  return status;
}

bool QmuxLink::next(qmi::Frame& frame) {
  const bool is_whole = take_frame(frame);
  if (is_whole || !reader_.has_partial_frame()) {
    partial_since_.reset();
  } else if (!partial_since_) {
    partial_since_ = Deadline::Clock::now();
  }
  return is_whole;
}

bool QmuxLink::take_frame(qmi::Frame& frame) {
  const bool is_whole = reader_.next(frame);
  if (is_whole) trace_.write(qmi::Direction::kFromModem, frame);
  return is_whole;
}

SendStatus QmuxLink::request(ctl::MessageId id, const Bytes& value, const Deadline& deadline) {
  if (const SendStatus status = flush(deadline); status != SendStatus::kSent) return status;
  transaction_ = next_control_transaction(transaction_);
  Bytes bytes(qmi::kFrameHeaderLength + qmi::kControlHeaderLength + qmi::kTlvHeaderLength + value.size());
  qmi::FrameWriter writer(qmi::Direction::kToModem, bytes);
  writer.start(qmi::kControlService, qmi::kNoClient, qmi::MessageKind::kRequest, transaction_,
               static_cast<uint16_t>(id));
  if (!value.empty()) writer.add_tlv(kValueTlv, value);
  const auto frame = writer.finish();
  const SendStatus status = send(frame);
  return status == SendStatus::kBlocked ? flush(deadline) : status;
}

QmuxLink::Outcome QmuxLink::exchange(ctl::MessageId id, const Bytes& value, const Deadline& deadline,
                                     Bytes* response_value) {
  if (request(id, value, deadline) != SendStatus::kSent) return Outcome::kNotSent;
  for (;;) {
    qmi::Frame frame;
    while (take_frame(frame)) {
      const auto message = qmi::read_message(frame);
      if (frame.service != qmi::kControlService || !message) continue;
      const ControlIndication indication = read_control_indication(*message);
      saw_restart_ |= indication.event == ControlIndication::kRestarted;
      if (indication.event == ControlIndication::kRevoked) revoked_.insert({indication.service, indication.client});
      if (message->kind != qmi::MessageKind::kResponse || message->transaction != transaction_ ||
          message->id != static_cast<uint16_t>(id)) {
        continue;
      }
      const auto result = qmi::find_tlv(message->tlvs, qmi::kResultTlv);
      if (!result || result->size() != qmi::kResultLength) return Outcome::kFailure;
      if (qmi::load_u16(&(*result)[0]) != QMI_RESULT_SUCCESS_V01) {
        return qmi::load_u16(&(*result)[2]) == QMI_ERR_CLIENT_IDS_EXHAUSTED_V01 ? Outcome::kClientIdsExhausted
                                                                                : Outcome::kFailure;
      }
      const auto found = qmi::find_tlv(message->tlvs, kValueTlv).value_or(std::span<const uint8_t>());
      if (response_value != nullptr) response_value->assign(found.begin(), found.end());
      return Outcome::kSuccess;
    }
    if (reader_.is_broken() || deadline.has_passed() || read(deadline) != ReadStatus::kRead)
      return Outcome::kNoResponse;
  }
}

}  // namespace pelmar::platform
