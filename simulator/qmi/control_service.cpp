#include "qmi/control_service.h"

#include <algorithm>
#include <optional>
#include <vector>

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

QmiError succeed(qmi::FrameWriter& response, uint8_t tlv = 0, std::span<const uint8_t> value = {}) {
  response.add_result(QMI_ERR_NONE_V01);
  if (tlv != 0) response.add_tlv(tlv, value);
  return QMI_ERR_NONE_V01;
}

QmiError get_version_info(const Request& request, qmi::FrameWriter& response) {
  std::vector<uint8_t> versions = {0};  // their number, then each
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
QmiError read_mandatory(const Request& request, size_t size, std::span<const uint8_t>& value) {
  const auto tlv = qmi::find_tlv(request.tlvs, kMandatoryTlv);
  if (!tlv) return QMI_ERR_MISSING_ARG_V01;
  if (tlv->size() != size) return QMI_ERR_MALFORMED_MSG_V01;
  value = *tlv;
  return QMI_ERR_NONE_V01;
}

QmiError allocate_client_id(const Request& request, qmi::FrameWriter& response) {
  std::span<const uint8_t> value;
  if (const QmiError error = read_mandatory(request, 1, value)) return error;
  if (request.modem.state() != Modem::State::kReady) return QMI_ERR_DEVICE_NOT_READY_V01;
  Modem::Slot* const slot = request.modem.find_running(value[0]);
  if (slot == nullptr) return QMI_ERR_INVALID_ID_V01;
  const std::optional<uint8_t> client = slot->clients.allocate(request.connection);
  if (!client) return QMI_ERR_CLIENT_IDS_EXHAUSTED_V01;
  const uint8_t allocated[] = {value[0], *client};
  return succeed(response, kMandatoryTlv, allocated);
}

QmiError release_client_id(const Request& request, qmi::FrameWriter& response) {
  std::span<const uint8_t> value;
  if (const QmiError error = read_mandatory(request, 2, value)) return error;
  Modem::Slot* const slot = request.modem.find(value[0]);
  if (slot == nullptr || !request.modem.release(*slot, value[1], request.connection)) {
    return QMI_ERR_INVALID_CLIENT_ID_V01;
  }
  return succeed(response, kMandatoryTlv, value);
}

QmiError set_data_format(const Request& request, qmi::FrameWriter& response) {
  const auto wanted = qmi::find_tlv(request.tlvs, kDataFormatTlv);
  uint8_t format[2];
  qmi::store_u16(format, wanted && wanted->size() == 2 ? qmi::load_u16(wanted->data()) : kRawIp);
  return succeed(response, kDataFormatTlv, format);
}

// A client sends sync when it begins. It voids only the ids of that client.
QmiError sync(const Request& request, qmi::FrameWriter& response) {
  request.modem.disconnect(request.connection);
  return succeed(response);
}

// Every device path succeeds: there is one modem.
QmiError proxy_open(const Request&, qmi::FrameWriter& response) {
  return succeed(response);
}

constexpr struct {
  uint16_t message;
  QmiError (*handle)(const Request& request, qmi::FrameWriter& response);
} kRows[] = {
    {kControlGetVersionInfo, get_version_info},
    {kControlAllocateClientId, allocate_client_id},
    {kControlReleaseClientId, release_client_id},
    {kControlSetDataFormat, set_data_format},
    {kControlSync, sync},
    {kControlProxyOpen, proxy_open},
};

}  // namespace

QmiError handle_control(Modem& modem, Connection& connection, uint16_t message, std::span<const uint8_t> tlvs,
                        qmi::FrameWriter& response) {
  const auto row =
      std::find_if(std::begin(kRows), std::end(kRows), [&](const auto& r) { return r.message == message; });
  if (row == std::end(kRows)) return QMI_ERR_INVALID_QMI_CMD_V01;
  return row->handle({modem, connection, tlvs}, response);
}

}  // namespace pelmar::sim
