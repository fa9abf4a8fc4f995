// The message rows of the vendor-specific service (0xE4), one row a TLV, and the tables computed from them.
//
// The framework's codec walks the tables on the phone and on Linux alike. The columns of a message row: direction,
// number, decoded size, largest size on the wire, TLVs.
#pragma once

#include "qmi_idl_table_builder.h"
#include "vs_messages.h"

namespace pelmar::vs {

constexpr qmi_idl::Element statistic(qmi_idl::Element element) {
  element.is_statistic = true;
  return element;
}

inline constexpr qmi_idl::Type kTypes[] = {
    {sizeof(StatsEntry),
     {QMI_IDL_FIELD(StatsEntry, stats_id), QMI_IDL_COUNTED(StatsEntry, para_num, parameters),
      QMI_IDL_FIELD(StatsEntry, flag), QMI_IDL_FIELD(StatsEntry, block), QMI_IDL_FIELD(StatsEntry, trailer)}},
    {sizeof(DataRecord),
     {QMI_IDL_FIELD(DataRecord, sub), QMI_IDL_FIELD(DataRecord, sub_high), QMI_IDL_FIELD(DataRecord, id),
      statistic(QMI_IDL_COUNTED(DataRecord, data_len, data))}},
    {1},  // the empty structure
    {sizeof(WordPair), {QMI_IDL_FIELD(WordPair, first), QMI_IDL_FIELD(WordPair, second)}},
};
static_assert(wire_maximum(kTypes[0]) == 43);
static_assert(wire_maximum(kTypes[1]) == 710);

constexpr qmi_idl::Element aggregate_of(const StatsEntry*) {
  return aggregate(kTypes[0], 0);
}
constexpr qmi_idl::Element aggregate_of(const DataRecord*) {
  return aggregate(kTypes[1], 1);
}

using qmi_idl::mandatory;
using qmi_idl::optional;

// The standard result TLV, first in every response.
inline constexpr qmi_idl::Tlv kResult = mandatory(0x02, QMI_IDL_FIELD(PlainResponse, header));

// clang-format off
inline constexpr qmi_idl::Message kMessages[] = {
    {QMI_IDL_REQUEST, kPassThrough, sizeof(PassThroughRequest), 517, {
        mandatory(0x01, QMI_IDL_COUNTED(PassThroughRequest, payload_len, payload))}},
    {QMI_IDL_REQUEST, kSetEventReport, sizeof(SetEventReportRequest), 8, {
        optional(0x10, offsetof(SetEventReportRequest, report_ab_valid), QMI_IDL_FIELD(SetEventReportRequest, report_ab)),
        optional(0x11, offsetof(SetEventReportRequest, report_c_valid), QMI_IDL_FIELD(SetEventReportRequest, report_c))}},
    {QMI_IDL_REQUEST, kGetFeatureStatus, sizeof(GetFeatureStatusRequest), 7, {
        mandatory(0x01, QMI_IDL_FIELD(GetFeatureStatusRequest, feature))}},
    {QMI_IDL_REQUEST, kSetFeatureStatus, sizeof(SetFeatureStatusRequest), 15, {
        mandatory(0x01, QMI_IDL_FIELD(SetFeatureStatusRequest, feature)),
        mandatory(0x02, QMI_IDL_FIELD(SetFeatureStatusRequest, enable)),
        optional(0x10, offsetof(SetFeatureStatusRequest, option_valid), QMI_IDL_FIELD(SetFeatureStatusRequest, option))}},
    {QMI_IDL_REQUEST, kReadNv, sizeof(NvRequest), 16, {
        mandatory(0x01, QMI_IDL_FIELD(NvRequest, item)),
        mandatory(0x02, QMI_IDL_FIELD(NvRequest, qualifier)),
        mandatory(0x03, QMI_IDL_FIELD(NvRequest, index))}},
    {QMI_IDL_REQUEST, kWriteNv, sizeof(WriteNvRequest), 277, {
        mandatory(0x01, QMI_IDL_FIELD(WriteNvRequest, item)),
        mandatory(0x02, QMI_IDL_FIELD(WriteNvRequest, qualifier)),
        mandatory(0x03, QMI_IDL_FIELD(WriteNvRequest, index)),
        mandatory(0x04, QMI_IDL_COUNTED(WriteNvRequest, data_len, data))}},
    {QMI_IDL_REQUEST, kDeleteNv, sizeof(NvRequest), 16, {
        mandatory(0x01, QMI_IDL_FIELD(NvRequest, item)),
        mandatory(0x02, QMI_IDL_FIELD(NvRequest, qualifier)),
        mandatory(0x03, QMI_IDL_FIELD(NvRequest, index))}},
    {QMI_IDL_REQUEST, kReadEfs, sizeof(EfsRequest), 12, {
        mandatory(0x01, QMI_IDL_FIELD(EfsRequest, item)),
        mandatory(0x02, QMI_IDL_FIELD(EfsRequest, qualifier))}},
    {QMI_IDL_REQUEST, kWriteEfs, sizeof(WriteEfsRequest), 273, {
        mandatory(0x01, QMI_IDL_FIELD(WriteEfsRequest, item)),
        mandatory(0x02, QMI_IDL_FIELD(WriteEfsRequest, qualifier)),
        mandatory(0x03, QMI_IDL_COUNTED(WriteEfsRequest, data_len, data))}},
    {QMI_IDL_REQUEST, kDeleteEfs, sizeof(EfsRequest), 12, {
        mandatory(0x01, QMI_IDL_FIELD(EfsRequest, item)),
        mandatory(0x02, QMI_IDL_FIELD(EfsRequest, qualifier))}},
    {QMI_IDL_REQUEST, kReadEfsPath, sizeof(EfsPathRequest), 112, {
        mandatory(0x01, QMI_IDL_FIELD(EfsPathRequest, path)),
        mandatory(0x02, QMI_IDL_FIELD(EfsPathRequest, qualifier)),
        mandatory(0x03, QMI_IDL_FIELD(EfsPathRequest, index))}},
    {QMI_IDL_REQUEST, kWriteEfsPath, sizeof(WriteEfsPathRequest), 373, {
        mandatory(0x01, QMI_IDL_FIELD(WriteEfsPathRequest, path)),
        mandatory(0x02, QMI_IDL_FIELD(WriteEfsPathRequest, qualifier)),
        mandatory(0x03, QMI_IDL_FIELD(WriteEfsPathRequest, index)),
        mandatory(0x04, QMI_IDL_COUNTED(WriteEfsPathRequest, data_len, data))}},
    {QMI_IDL_REQUEST, kDeleteEfsPath, sizeof(EfsPathRequest), 112, {
        mandatory(0x01, QMI_IDL_FIELD(EfsPathRequest, path)),
        mandatory(0x02, QMI_IDL_FIELD(EfsPathRequest, qualifier)),
        mandatory(0x03, QMI_IDL_FIELD(EfsPathRequest, index))}},
    {QMI_IDL_REQUEST, kReadRfnv, sizeof(RfnvRequest), 7, {
        mandatory(0x01, QMI_IDL_FIELD(RfnvRequest, item))}},
    {QMI_IDL_REQUEST, kWriteRfnv, sizeof(WriteRfnvRequest), 268, {
        mandatory(0x01, QMI_IDL_FIELD(WriteRfnvRequest, item)),
        mandatory(0x02, QMI_IDL_COUNTED(WriteRfnvRequest, data_len, data))}},
    {QMI_IDL_REQUEST, kDeleteRfnv, sizeof(RfnvRequest), 7, {
        mandatory(0x01, QMI_IDL_FIELD(RfnvRequest, item))}},
    {QMI_IDL_REQUEST, kEfsSync, sizeof(EfsSyncRequest), 16, {
        mandatory(0x01, QMI_IDL_FIELD(EfsSyncRequest, mode)),
        mandatory(0x02, QMI_IDL_FIELD(EfsSyncRequest, value)),
        mandatory(0x03, QMI_IDL_FIELD(EfsSyncRequest, option))}},
    {QMI_IDL_REQUEST, kSetStatsReportStatus, sizeof(SetStatsReportStatusRequest), 11, {
        mandatory(0x01, QMI_IDL_FIELD(SetStatsReportStatusRequest, report)),
        optional(0x10, offsetof(SetStatsReportStatusRequest, stats_client_id_valid),
                 QMI_IDL_FIELD(SetStatsReportStatusRequest, stats_client_id))}},
    {QMI_IDL_REQUEST, kRegisterStats, sizeof(RegisterStatsRequest), 4321, {
        mandatory(0x01, QMI_IDL_FIELD(RegisterStatsRequest, stats_client_id)),
        mandatory(0x02, QMI_IDL_COUNTED(RegisterStatsRequest, entry_count, entries)),
        optional(0x10, offsetof(RegisterStatsRequest, option1_valid), QMI_IDL_FIELD(RegisterStatsRequest, option1)),
        optional(0x11, offsetof(RegisterStatsRequest, option2_valid), QMI_IDL_FIELD(RegisterStatsRequest, option2))}},
    {QMI_IDL_REQUEST, kDeregisterStats, sizeof(DeregisterStatsRequest), 421, {
        mandatory(0x01, QMI_IDL_FIELD(DeregisterStatsRequest, stats_client_id)),
        mandatory(0x02, QMI_IDL_COUNTED(DeregisterStatsRequest, id_count, ids)),
        optional(0x10, offsetof(DeregisterStatsRequest, option1_valid), QMI_IDL_FIELD(DeregisterStatsRequest, option1)),
        optional(0x11, offsetof(DeregisterStatsRequest, option2_valid), QMI_IDL_FIELD(DeregisterStatsRequest, option2))}},
    {QMI_IDL_REQUEST, kGetStatsParameter, sizeof(GetStatsParameterRequest), 7114, {
        mandatory(0x01, QMI_IDL_FIELD(GetStatsParameterRequest, sub)),
        mandatory(0x02, QMI_IDL_FIELD(GetStatsParameterRequest, slot)),
        mandatory(0x03, QMI_IDL_COUNTED(GetStatsParameterRequest, record_count, records))}},
    {QMI_IDL_REQUEST, kClearStatsParameter, sizeof(ClearStatsParameterRequest), 54, {
        mandatory(0x01, QMI_IDL_FIELD(ClearStatsParameterRequest, sub)),
        mandatory(0x02, QMI_IDL_FIELD(ClearStatsParameterRequest, slot)),
        mandatory(0x03, QMI_IDL_COUNTED(ClearStatsParameterRequest, id_count, ids))}},
    {QMI_IDL_REQUEST, kNotifyShutdown, sizeof(EmptyRequest), 0},
    {QMI_IDL_REQUEST, kResetModem, sizeof(EmptyRequest), 0},

    {QMI_IDL_RESPONSE, kPassThrough, sizeof(PassThroughResponse), 528, {
        kResult, mandatory(0x03, QMI_IDL_COUNTED(PassThroughResponse, data_len, data))}},
    {QMI_IDL_RESPONSE, kSetEventReport, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kGetFeatureStatus, sizeof(GetFeatureStatusResponse), 19, {
        kResult,
        mandatory(0x03, QMI_IDL_FIELD(GetFeatureStatusResponse, enabled)),
        mandatory(0x04, QMI_IDL_FIELD(GetFeatureStatusResponse, effective))}},
    {QMI_IDL_RESPONSE, kSetFeatureStatus, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kReadNv, sizeof(ReadResponse), 272, {
        kResult, mandatory(0x03, QMI_IDL_COUNTED(ReadResponse, data_len, data))}},
    {QMI_IDL_RESPONSE, kWriteNv, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kDeleteNv, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kReadEfs, sizeof(ReadResponse), 272, {
        kResult, mandatory(0x03, QMI_IDL_COUNTED(ReadResponse, data_len, data))}},
    {QMI_IDL_RESPONSE, kWriteEfs, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kDeleteEfs, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kReadEfsPath, sizeof(ReadResponse), 272, {
        kResult, mandatory(0x03, QMI_IDL_COUNTED(ReadResponse, data_len, data))}},
    {QMI_IDL_RESPONSE, kWriteEfsPath, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kDeleteEfsPath, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kReadRfnv, sizeof(ReadResponse), 272, {
        kResult, mandatory(0x03, QMI_IDL_COUNTED(ReadResponse, data_len, data))}},
    {QMI_IDL_RESPONSE, kWriteRfnv, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kDeleteRfnv, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kEfsSync, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kSetStatsReportStatus, sizeof(SetStatsReportStatusResponse), 18, {
        kResult,
        optional(0x10, offsetof(SetStatsReportStatusResponse, stats_client_id_valid),
                 QMI_IDL_FIELD(SetStatsReportStatusResponse, stats_client_id))}},
    {QMI_IDL_RESPONSE, kRegisterStats, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kDeregisterStats, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kGetStatsParameter, sizeof(GetStatsParameterResponse), 7115, {
        kResult,
        optional(0x10, offsetof(GetStatsParameterResponse, records_valid),
                 QMI_IDL_COUNTED(GetStatsParameterResponse, record_count, records))}},
    {QMI_IDL_RESPONSE, kClearStatsParameter, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kNotifyShutdown, sizeof(PlainResponse), 11, {kResult}},
    {QMI_IDL_RESPONSE, kResetModem, sizeof(PlainResponse), 11, {kResult}},

    {QMI_IDL_INDICATION, kStatusIndication, sizeof(StatusIndication), 15, {
        mandatory(0x01, QMI_IDL_FIELD(StatusIndication, value)),
        mandatory(0x02, QMI_IDL_FIELD(StatusIndication, flag1)),
        mandatory(0x03, QMI_IDL_FIELD(StatusIndication, flag2))}},
    {QMI_IDL_INDICATION, kReportAIndication, sizeof(ReportAIndication), 10672, {
        mandatory(0x01, QMI_IDL_FIELD(ReportAIndication, value)),
        mandatory(0x02, QMI_IDL_COUNTED(ReportAIndication, record_count, records)),
        optional(0x10, offsetof(ReportAIndication, secondary_valid),
                 QMI_IDL_COUNTED(ReportAIndication, secondary_count, secondary)),
        optional(0x11, offsetof(ReportAIndication, trailer_valid), QMI_IDL_FIELD(ReportAIndication, trailer))}},
    {QMI_IDL_INDICATION, kReportBIndication, sizeof(ReportBIndication), 121, {
        mandatory(0x01, QMI_IDL_FIELD(ReportBIndication, value)),
        mandatory(0x02, QMI_IDL_COUNTED(ReportBIndication, entry_count, entries)),
        mandatory(0x03, QMI_IDL_FIELD(ReportBIndication, first)),
        mandatory(0x04, QMI_IDL_FIELD(ReportBIndication, second))}},
    {QMI_IDL_INDICATION, kReportCIndication, sizeof(ReportCIndication), 4, {
        mandatory(0x01, QMI_IDL_FIELD(ReportCIndication, value))}},
};
// clang-format on

using Tables = qmi_idl::ServiceTables<kTypes, kMessages>;

static_assert(qmi_idl::largest(kMessages) == 10672);
static_assert(Tables::kRequests.size() == 24 && Tables::kResponses.size() == 24 && Tables::kIndications.size() == 4);

inline constinit const qmi_idl_service_object kService =
    Tables::service(kServiceId, kIdlMajorVersion, kIdlMinorVersion, kIdlLibraryVersion);

}  // namespace pelmar::vs
