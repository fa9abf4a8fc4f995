#include "catalogue.h"

#include <algorithm>

#include "ctl_tables.h"
#include "nas_tables.h"
#include "sar_tables.h"
#include "vs_tables.h"

namespace pelmar::qmi {

namespace {

constexpr MessageName kCtlNames[] = {
    {ctl::kGetVersionInfo, "GET_VERSION_INFO"},
    {ctl::kAllocateClientId, "ALLOCATE_CLIENT_ID"},
    {ctl::kReleaseClientId, "RELEASE_CLIENT_ID"},
    {ctl::kRevokeClientId, "REVOKE_CLIENT_ID"},
    {ctl::kSetDataFormat, "SET_DATA_FORMAT"},
    {ctl::kSync, "SYNC"},
    {ctl::kOpenProxy, "OPEN_PROXY"},
};

constexpr MessageName kNasNames[] = {
    {QMI_NAS_REGISTER_INDICATIONS_V01, "REGISTER_INDICATIONS"},
    {QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01, "SET_SYSTEM_SELECTION_PREFERENCE"},
    {QMI_NAS_GET_CELL_LOCATION_INFO_V01, "GET_CELL_LOCATION_INFO"},
    {QMI_NAS_BIND_SUBSCRIPTION_V01, "BIND_SUBSCRIPTION"},
    {QMI_NAS_GET_DRX_V01, "GET_DRX"},
    {QMI_NAS_SET_AVOID_TRM_V01, "SET_AVOID_TRM"},
    {QMI_NAS_SET_LTE_CELL_LOCK_V01, "SET_LTE_CELL_LOCK"},
};

constexpr MessageName kSarNames[] = {
    {QMI_SAR_RF_SET_STATE_V01, "RF_SET_STATE"},
    {QMI_SAR_RF_GET_STATE_V01, "RF_GET_STATE"},
};

constexpr MessageName kVsNames[] = {
    {vs::kPassThrough, "PASS_THROUGH"},
    {vs::kSetEventReport, "SET_EVENT_REPORT"},
    {vs::kGetFeatureStatus, "GET_FEATURE_STATUS"},
    {vs::kSetFeatureStatus, "SET_FEATURE_STATUS"},
    {vs::kReadNv, "READ_NV"},
    {vs::kWriteNv, "WRITE_NV"},
    {vs::kDeleteNv, "DELETE_NV"},
    {vs::kReadEfs, "READ_EFS"},
    {vs::kWriteEfs, "WRITE_EFS"},
    {vs::kDeleteEfs, "DELETE_EFS"},
    {vs::kReadEfsPath, "READ_EFS_PATH"},
    {vs::kWriteEfsPath, "WRITE_EFS_PATH"},
    {vs::kDeleteEfsPath, "DELETE_EFS_PATH"},
    {vs::kReadRfnv, "READ_RFNV"},
    {vs::kWriteRfnv, "WRITE_RFNV"},
    {vs::kDeleteRfnv, "DELETE_RFNV"},
    {vs::kEfsSync, "EFS_SYNC"},
    {vs::kSetStatsReportStatus, "SET_STATS_REPORT_STATUS"},
    {vs::kRegisterStats, "REGISTER_STATS"},
    {vs::kDeregisterStats, "DEREGISTER_STATS"},
    {vs::kGetStatsParameter, "GET_STATS_PARAMETER"},
    {vs::kClearStatsParameter, "CLEAR_STATS_PARAMETER"},
    {vs::kNotifyShutdown, "NOTIFY_SHUTDOWN"},
    {vs::kResetModem, "RESET_MODEM"},
    {vs::kStatusIndication, "STATUS"},
    {vs::kReportAIndication, "REPORT_A"},
    {vs::kReportBIndication, "REPORT_B"},
    {vs::kReportCIndication, "REPORT_C"},
};

constexpr ServiceRows kServices[] = {
    {kControlService, "CTL", kCtlNames, ctl::kMessages, ctl::kTypes},
    {0x01, "WDS"},
    {0x02, "DMS"},
    {NAS_SERVICE_ID_V01, "NAS", kNasNames, nas::kMessages, nas::kTypes},
    {0x04, "QOS"},
    {0x05, "WMS"},
    {0x06, "PDS"},
    {0x09, "VOICE"},
    {0x0B, "UIM"},
    {0x0C, "PBM"},
    {0x10, "LOC"},
    {SAR_SERVICE_ID_V01, "SAR", kSarNames, sar::kMessages, sar::kTypes},
    {0x1A, "WDA"},
    {vs::kServiceId, "VS", kVsNames, vs::kMessages, vs::kTypes},
};

constexpr const char* find_name(std::span<const MessageName> names, uint16_t id) {
  for (const MessageName& row : names) {
    if (row.id == id) return row.name;
  }
  return nullptr;
}

constexpr bool every_row_has_a_name() {
  for (const ServiceRows& service : kServices) {
    for (const qmi_idl::Message& message : service.messages) {
      if (find_name(service.names, message.id) == nullptr) return false;
    }
  }
  return true;
}
static_assert(every_row_has_a_name());

constexpr qmi_idl::Element number(const char* name) {
  return {.kind = QMI_IDL_KIND_ENUM_2_BYTES, .item_wire_size = 2, .name = name};
}

// The common table's only type.
constexpr qmi_idl::Type kResult = {sizeof(qmi_response_type_v01), {number("result"), number("error")}};

constexpr qmi_idl::Tlv kResultRow = {
    .type = kResultTlv, .element = qmi_idl::aggregate_of(static_cast<const qmi_response_type_v01*>(nullptr))};

}  // namespace

std::span<const ServiceRows> catalogue() {
  return kServices;
}

const qmi_idl::Type& type_of(const ServiceRows& service, const qmi_idl::Element& aggregate) {
  return aggregate.type_table == 0 ? service.types[aggregate.type_index] : kResult;
}

const ServiceRows* find_service(uint8_t service) {
  const auto row = std::find_if(std::begin(kServices), std::end(kServices),
                                [service](const ServiceRows& each) { return each.id == service; });
  return row != std::end(kServices) ? row : nullptr;
}

const char* service_name(uint8_t service) {
  const ServiceRows* const rows = find_service(service);
  return rows == nullptr ? nullptr : rows->name;
}

const char* message_name(uint8_t service, uint16_t message) {
  const ServiceRows* const rows = find_service(service);
  return rows == nullptr ? nullptr : find_name(rows->names, message);
}

const qmi_idl::Tlv* find_row(const ServiceRows& service, MessageKind kind, uint16_t message, uint8_t tlv) {
  if (kind == MessageKind::kResponse && tlv == kResultTlv) return &kResultRow;
  const auto direction = static_cast<qmi_idl_type_of_message_type>(kind);
  for (const qmi_idl::Message& row : service.messages) {
    if (row.direction != direction || row.id != message) continue;
    for (const qmi_idl::Tlv& each : row.tlvs) {
      if (each.type == tlv && tlv != 0) return &each;
    }
  }
  return nullptr;
}

const char* tlv_name(MessageKind kind, const qmi_idl::Tlv& row) {
  return kind == MessageKind::kResponse && row.type == kResultTlv ? "result" : row.element.name;
}

}  // namespace pelmar::qmi
