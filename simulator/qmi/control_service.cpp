#include "qmi/control_service.h"

#include <algorithm>
#include <optional>

namespace pelmar::sim {

namespace {

constexpr uint8_t kMandatoryTlv = 0x01;
constexpr uint8_t kDataFormatTlv = 0x10;
constexpr uint16_t kRawIp = 2;
constexpr uint16_t kControlMajor = 1;
constexpr uint16_t kControlMinor = 5;

struct Request {
  Modem& modem;
  Connection& connection;
  std::span<const uint8_t> tlvs;
};

void put(ControlAnswer& answer, std::initializer_list<uint8_t> bytes) {
  for (const uint8_t byte : bytes) answer.value[answer.size++] = byte;
}

void put_version(ControlAnswer& answer, uint8_t service, uint16_t major, uint16_t minor) {
  put(answer, {service, static_cast<uint8_t>(major), static_cast<uint8_t>(major >> 8), static_cast<uint8_t>(minor),
               static_cast<uint8_t>(minor >> 8)});
  ++answer.value[0];
}

QmiError get_version_info(const Request& request, ControlAnswer& answer) {
  answer.tlv = kMandatoryTlv;
  put(answer, {0});
  put_version(answer, qmi::kControlService, kControlMajor, kControlMinor);
  for (const Modem::Slot& slot : request.modem.slots()) {
    const Service& service = *slot.service;
    if (request.modem.find_running(service.id()) == nullptr) continue;
    put_version(answer, service.id(), service.major_version(), service.minor_version());
  }
  return QMI_ERR_NONE_V01;
}

// The mandatory TLV where it has exactly that size; else why not.
QmiError read_mandatory(const Request& request, size_t size, std::span<const uint8_t>& value) {
  const auto tlv = qmi::find_tlv(request.tlvs, kMandatoryTlv);
  if (!tlv) return QMI_ERR_MISSING_ARG_V01;
  if (tlv->size() != size) return QMI_ERR_MALFORMED_MSG_V01;
  value = *tlv;
  return QMI_ERR_NONE_V01;
}

QmiError allocate_client_id(const Request& request, ControlAnswer& answer) {
  std::span<const uint8_t> value;
  if (const QmiError error = read_mandatory(request, 1, value)) return error;
  if (request.modem.state() != Modem::State::kReady) return QMI_ERR_DEVICE_NOT_READY_V01;
  Modem::Slot* slot = request.modem.find_running(value[0]);
  if (slot == nullptr) return QMI_ERR_INVALID_ID_V01;
  const std::optional<uint8_t> client = slot->clients.allocate(request.connection);
  if (!client) return QMI_ERR_CLIENT_IDS_EXHAUSTED_V01;
  answer.tlv = kMandatoryTlv;
  put(answer, {value[0], *client});
  return QMI_ERR_NONE_V01;
}

QmiError release_client_id(const Request& request, ControlAnswer& answer) {
  std::span<const uint8_t> value;
  if (const QmiError error = read_mandatory(request, 2, value)) return error;
  Modem::Slot* slot = request.modem.find(value[0]);
  if (slot == nullptr || !request.modem.release(*slot, value[1], request.connection)) {
    return QMI_ERR_INVALID_CLIENT_ID_V01;
  }
  answer.tlv = kMandatoryTlv;
  put(answer, {value[0], value[1]});
  return QMI_ERR_NONE_V01;
}

QmiError set_data_format(const Request& request, ControlAnswer& answer) {
  const auto wanted = qmi::find_tlv(request.tlvs, kDataFormatTlv);
  const uint16_t format = wanted && wanted->size() == 2 ? qmi::load_u16(wanted->data()) : kRawIp;
  answer.tlv = kDataFormatTlv;
  put(answer, {static_cast<uint8_t>(format), static_cast<uint8_t>(format >> 8)});
  return QMI_ERR_NONE_V01;
}

// Sync is asked by a client that begins, and voids only what that client held.
QmiError sync(const Request& request, ControlAnswer&) {
  request.modem.disconnect(request.connection);
  return QMI_ERR_NONE_V01;
}

// Any device path will do: there is one modem.
QmiError proxy_open(const Request&, ControlAnswer&) {
  return QMI_ERR_NONE_V01;
}

struct Row {
  uint16_t message;
  QmiError (*answer)(const Request& request, ControlAnswer& answer);
};

constexpr Row kRows[] = {
    {kControlGetVersionInfo, get_version_info},
    {kControlAllocateClientId, allocate_client_id},
    {kControlReleaseClientId, release_client_id},
    {kControlSetDataFormat, set_data_format},
    {kControlSync, sync},
    {kControlProxyOpen, proxy_open},
};

}  // namespace

QmiError answer_control(Modem& modem, Connection& connection, uint16_t message, std::span<const uint8_t> tlvs,
                        ControlAnswer& answer) {
  const auto row = std::find_if(std::begin(kRows), std::end(kRows), [&](const Row& r) { return r.message == message; });
  if (row == std::end(kRows)) return QMI_ERR_INVALID_QMI_CMD_V01;
  return row->answer({modem, connection, tlvs}, answer);
}

}  // namespace pelmar::sim
