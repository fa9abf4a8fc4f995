#include "qmi/exchange.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "qmi/control_service.h"
#include "qmi_codec.h"

namespace pelmar::sim {

namespace {

constexpr int kStatusOfSuddenDeath = 70;

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
  const std::optional<Fault> fault = take_fault(frame.service, request->id);

  writer_.start(frame.service, frame.client, qmi::MessageKind::kResponse, request->transaction, request->id);
  QmiError error = QMI_ERR_NONE_V01;
  if (fault && fault->kind == FaultKind::kError) {
    error = fault->error;
  } else if (frame.service == qmi::kControlService) {
    error = request->length_agrees ? handle_control(modem_, connection, request->id, request->tlvs, writer_)
                                   : QmiError{QMI_ERR_MALFORMED_MSG_V01};
  } else {
    error = respond_to_client(connection, frame, *request);
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
  ++counters_.faults;
  deliver(connection, frame, response, *fault);
}

void Exchange::on_closed(Connection& connection, std::string_view reason) {
  if (reason != Stream::kClosedByPeer) ++counters_.dropped_connections;
  modem_.disconnect(connection);
}

QmiError Exchange::respond_to_client(Connection& connection, const qmi::Frame& frame, const qmi::Message& request) {
  if (modem_.state() != Modem::State::kReady) return QMI_ERR_DEVICE_NOT_READY_V01;
  Modem::Slot* slot = modem_.find_running(frame.service);
  if (slot == nullptr || slot->clients.owner(frame.client) != &connection) return QMI_ERR_INVALID_CLIENT_ID_V01;
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
  const auto room = writer_.room();
  const int32_t encoded = qmi::encode(service.object(), QMI_IDL_RESPONSE, request.id, response_.bytes,
                                      row->response_size, room.data(), room.size(), &length);
  if (encoded != QMI_IDL_LIB_NO_ERR) return QMI_ERR_ENCODING_V01;
  writer_.grow(length);
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
    case FaultKind::kReorder:
      return hold_back(keep(), fault.delay);
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
      _exit(kStatusOfSuddenDeath);
  }
}

void Exchange::hold_back(LateResponse response, EventLoop::Clock::duration limit) {
  const auto held = held_.insert(held_.end(), std::move(response));
  held->limit = loop_.after(limit, [this, held] {
    send_late(*held);
    held_.erase(held);
  });
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
