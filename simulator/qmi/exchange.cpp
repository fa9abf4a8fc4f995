#include "qmi/exchange.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "qmi_codec.h"

namespace pelmar::sim {

namespace {

constexpr int kExitStatusOfFault = 70;

// --- the control service: versions, client ids, and the messages of a proxy ---

constexpr uint8_t kMandatoryTlv = 0x01;
constexpr uint8_t kDataFormatTlv = 0x10;
constexpr uint16_t kRawIp = 2;
constexpr uint16_t kControlMajor = 1;
constexpr uint16_t kControlMinor = 5;

struct ControlRequest {
  Modem& modem;
  Connection& connection;
  const qmi::Message& message;
  Replay* replay;
};

QmiError succeed(qmi::FrameWriter& response, uint8_t tlv = 0, std::span<const uint8_t> value = {}) {
  response.add_result(QMI_ERR_NONE_V01);
  if (tlv != 0) response.add_tlv(tlv, value);
  return QMI_ERR_NONE_V01;
}

QmiError get_version_info(const ControlRequest& request, qmi::FrameWriter& response) {
  std::vector<uint8_t> versions = {0};  // the count, then service id and version of each
  const auto add = [&](uint8_t service, uint16_t major, uint16_t minor) {
    uint8_t version[5] = {service};
    qmi::store_u16(version + 1, major);
    qmi::store_u16(version + 3, minor);
    versions.insert(versions.end(), std::begin(version), std::end(version));
    ++versions[0];
  };
  add(qmi::kControlService, kControlMajor, kControlMinor);
  for (const Modem::Slot& slot : request.modem.slots()) {
    const Service& service = *slot.service;
    if (request.modem.find_running(service.id()) == nullptr) continue;
    add(service.id(), service.major_version(), service.minor_version());
  }
  return succeed(response, kMandatoryTlv, versions);
}

// Gets the mandatory TLV, which must have that size.
QmiError find_mandatory_tlv(const ControlRequest& request, size_t size, std::span<const uint8_t>& value) {
  const auto tlv = qmi::find_tlv(request.message.tlvs, kMandatoryTlv);
  if (!tlv) return QMI_ERR_MISSING_ARG_V01;
  if (tlv->size() != size) return QMI_ERR_MALFORMED_MSG_V01;
  value = *tlv;
  return QMI_ERR_NONE_V01;
}

QmiError allocate_client_id(const ControlRequest& request, qmi::FrameWriter& response) {
  std::span<const uint8_t> value;
  if (const QmiError error = find_mandatory_tlv(request, 1, value)) return error;
  Modem::Slot* const slot = request.modem.find_running(value[0]);
  QmiError error = QMI_ERR_NONE_V01;
  if (request.modem.state() != Modem::State::kReady) {
    error = QMI_ERR_DEVICE_NOT_READY_V01;
  } else if (slot == nullptr) {
    error = QMI_ERR_INVALID_ID_V01;
  } else if (slot->clients.count() == ClientIds::kLimit) {
    error = QMI_ERR_CLIENT_IDS_EXHAUSTED_V01;
  }
  if (request.replay != nullptr) error = request.replay->allocation_error(value[0], error);
  if (error != QMI_ERR_NONE_V01) return error;
  const uint8_t allocated[] = {value[0], *slot->clients.allocate(request.connection)};
  return succeed(response, kMandatoryTlv, allocated);
}

QmiError release_client_id(const ControlRequest& request, qmi::FrameWriter& response) {
  std::span<const uint8_t> value;
  if (const QmiError error = find_mandatory_tlv(request, 2, value)) return error;
  Modem::Slot* const slot = request.modem.find(value[0]);
  if (slot == nullptr || !request.modem.release(*slot, value[1], request.connection)) {
    return QMI_ERR_INVALID_CLIENT_ID_V01;
  }
  return succeed(response, kMandatoryTlv, value);
}

QmiError set_data_format(const ControlRequest& request, qmi::FrameWriter& response) {
  const auto wanted = qmi::find_tlv(request.message.tlvs, kDataFormatTlv);
  uint8_t format[2];
  qmi::store_u16(format, wanted && wanted->size() == 2 ? qmi::load_u16(wanted->data()) : kRawIp);
  return succeed(response, kDataFormatTlv, format);
}

// A client sends sync when it begins. It voids only the ids of that client.
QmiError sync(const ControlRequest& request, qmi::FrameWriter& response) {
  request.modem.disconnect(request.connection);
  return succeed(response);
}

// Every device path succeeds: there is one modem.
QmiError proxy_open(const ControlRequest&, qmi::FrameWriter& response) {
  return succeed(response);
}

constexpr struct {
  uint16_t message;
  QmiError (*handle)(const ControlRequest& request, qmi::FrameWriter& response);
} kRows[] = {
    {ctl::kGetVersionInfo, get_version_info},
    {ctl::kAllocateClientId, allocate_client_id},
    {ctl::kReleaseClientId, release_client_id},
    {ctl::kSetDataFormat, set_data_format},
    {ctl::kSync, sync},
    {ctl::kOpenProxy, proxy_open},
};

// Writes the response's TLVs unless it returns an error.
QmiError handle_control(const ControlRequest& request, qmi::FrameWriter& response) {
  if (!request.message.length_agrees) return QMI_ERR_MALFORMED_MSG_V01;
  for (const auto& row : kRows) {
    if (row.message == request.message.id) return row.handle(request, response);
  }
  return QMI_ERR_INVALID_QMI_CMD_V01;
}

// --- the other services ---

QmiError error_of_codec(int32_t codec_error) {
  switch (codec_error) {
    case QMI_IDL_LIB_NO_ERR:
      return QMI_ERR_NONE_V01;
    case QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND:
      return QMI_ERR_INVALID_QMI_CMD_V01;
    case QMI_IDL_LIB_MISSING_TLV:
      return QMI_ERR_MISSING_ARG_V01;
    case QMI_IDL_LIB_ARRAY_TOO_BIG:
    case QMI_IDL_LIB_BUFFER_TOO_SMALL:
      return QMI_ERR_ARG_TOO_LONG_V01;
    default:
      return QMI_ERR_MALFORMED_MSG_V01;
  }
}

}  // namespace

// The fault of the response to this message, counted down.
std::optional<Fault> Exchange::take_fault(uint8_t service, uint16_t message) {
  const auto fault = std::find_if(faults.begin(), faults.end(), [&](const Fault& each) {
    return each.service.value_or(service) == service && each.message.value_or(message) == message;
  });
  if (fault == faults.end()) return std::nullopt;
  if (!fault->times_left || --*fault->times_left != 0) return *fault;
  Fault last = std::move(*fault);
  faults.erase(fault);
  return last;
}

void Exchange::on_frame(Connection& connection, const qmi::Frame& frame) {
  const auto request = qmi::read_message(frame);
  if (!request || request->kind != qmi::MessageKind::kRequest) {
    ++counters_.ignored;
    return;
  }
  ++counters_.requests;
  std::optional<Fault> fault = take_fault(frame.service, request->id);
  if (fault) ++counters_.faults;

  writer_.start(frame.service, frame.client, qmi::MessageKind::kResponse, request->transaction, request->id);
  QmiError error = QMI_ERR_NONE_V01;
  if (fault && fault->kind == FaultKind::kError) {
    error = fault->error;
  } else if (frame.service == qmi::kControlService) {
    error = handle_control({modem_, connection, *request, replay_}, writer_);
  } else {
    error = respond_to_client(connection, frame, *request, fault);
  }
  if (error != QMI_ERR_NONE_V01) {
    ++counters_.failures;
    writer_.add_result(error);
  }

  const auto response = writer_.finish();
  if (!fault) {
    connection.send(response);
    return send_held(connection);
  }
  deliver(connection, frame, response, *fault);
}

void Exchange::on_closed(Connection& connection, std::string_view reason) {
  if (reason != Stream::kClosedByPeer) ++counters_.dropped_connections;
  modem_.disconnect(connection);
}

QmiError Exchange::respond_to_client(Connection& connection, const qmi::Frame& frame, const qmi::Message& request,
                                     std::optional<Fault>& fault) {
  if (modem_.state() != Modem::State::kReady) return QMI_ERR_DEVICE_NOT_READY_V01;
  Modem::Slot* slot = modem_.find_running(frame.service);
  if (slot == nullptr || slot->clients.owner(frame.client) != &connection) return QMI_ERR_INVALID_CLIENT_ID_V01;
  if (replay_ != nullptr) return respond_as_recorded(frame, fault);
  Service& service = *slot->service;
  const MessageRow* row = service.find(request.id);
  if (row == nullptr) return QMI_ERR_INVALID_QMI_CMD_V01;
  if (!request.length_agrees) return QMI_ERR_MALFORMED_MSG_V01;

  const int32_t decoded = qmi::decode(service.object(), QMI_IDL_REQUEST, request.id, request.tlvs.data(),
                                      request.tlvs.size(), request_.bytes, sizeof request_.bytes);
  if (decoded != QMI_IDL_LIB_NO_ERR) return error_of_codec(decoded);

  memset(response_.bytes, 0, row->response_size);
  const QmiError error = row->handle(service, frame.client, request_.bytes, response_.bytes);
  if (error != QMI_ERR_NONE_V01) return error;

  size_t length = 0;
  const auto space = writer_.room();
  const int32_t encoded = qmi::encode(service.object(), QMI_IDL_RESPONSE, request.id, response_.bytes,
                                      row->response_size, space.data(), space.size(), &length);
  if (encoded != QMI_IDL_LIB_NO_ERR) return QMI_ERR_ENCODING_V01;
  writer_.grow(length);
  return QMI_ERR_NONE_V01;
}

QmiError Exchange::respond_as_recorded(const qmi::Frame& frame, std::optional<Fault>& fault) {
  const auto response = replay_->respond(frame);
  if (!response) return QMI_ERR_NOT_SUPPORTED_V01;
  writer_.add_tlvs(response->tlvs);
  const auto delay = std::chrono::duration_cast<std::chrono::milliseconds>(response->delay);
  if (!fault && response->is_missing) {
    fault.emplace(FaultKind::kSilence);
  } else if (!fault && delay.count() > 0) {
    fault.emplace(FaultKind::kDelay).delay = delay;
  }
  return QMI_ERR_NONE_V01;
}

void Exchange::deliver(Connection& connection, const qmi::Frame& frame, std::span<const uint8_t> response,
                       const Fault& fault) {
  const auto keep = [&]() -> LateResponse {
    return {connection.weak_from_this(), frame.service, frame.client, {response.begin(), response.end()}, {}};
  };
  switch (fault.kind) {
    case FaultKind::kError:
      return connection.send(response);
    case FaultKind::kSilence:
      return;
    case FaultKind::kGarbage:
      return connection.send(fault.garbage);
    case FaultKind::kDelay:
      loop_.after(fault.delay, [this, late = keep()] { send_late(late); });
      return;
    case FaultKind::kRepeat:
      connection.send(response);
      return connection.send(response);
    case FaultKind::kReorder: {
      const auto held = held_.insert(held_.end(), keep());
      held->limit = loop_.after(fault.delay, [this, held] {
        send_late(*held);
        held_.erase(held);
      });
      return;
    }
    case FaultKind::kCut: {
      const size_t size = std::min(response.size(), qmi::kFrameHeaderLength + fault.cut_to);
      std::vector<uint8_t> cut(response.begin(), response.begin() + static_cast<ptrdiff_t>(size));
      qmi::store_u16(&cut[1], size - 1);
      return connection.send(cut);
    }
    case FaultKind::kCloseHalf:
      connection.send(response.first(response.size() / 2));
      return connection.close("closed by a fault");
    case FaultKind::kDieHalf:
      connection.send(response.first(response.size() / 2));
      _exit(kExitStatusOfFault);
  }
}

void Exchange::send_held(const Connection& connection) {
  for (auto next = held_.begin(); next != held_.end();) {
    const auto held = next++;
    if (held->receiver.lock().get() != &connection) continue;
    loop_.cancel(held->limit);
    send_late(*held);
    held_.erase(held);
  }
}

void Exchange::send_late(const LateResponse& response) {
  const auto receiver = response.receiver.lock();
  if (!receiver) return;
  const Modem::Slot* const slot = modem_.find_running(response.service);
  const bool is_addressed = slot != nullptr && slot->clients.owner(response.client) == receiver.get();
  if (response.service == qmi::kControlService || is_addressed) receiver->send(response.bytes);
}

}  // namespace pelmar::sim
