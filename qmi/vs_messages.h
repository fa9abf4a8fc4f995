// The structures of the vendor-specific service's messages, as its users fill and read them.
//
// The service's tables (vs_tables.h) describe exactly these structures; the framework's codec turns them into
// bytes on the wire and back. An optional TLV has a valid flag of one byte before its value, a variable array a 32-bit
// count before its elements. Offsets and sizes are part of the interface and are asserted here.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common_v01.h"

namespace pelmar::vs {

inline constexpr uint32_t kServiceId = 0xE4;
inline constexpr uint32_t kIdlMajorVersion = 1;
inline constexpr uint32_t kIdlMinorVersion = 2;
inline constexpr uint32_t kIdlLibraryVersion = 6;

inline constexpr size_t kMaxPassThroughBytes = 512;
inline constexpr size_t kMaxItemBytes = 256;
inline constexpr size_t kMaxPathCharacters = 100;
inline constexpr size_t kMaxStatsParameters = 5;
inline constexpr size_t kMaxRegistrations = 100;
inline constexpr size_t kMaxDataBytes = 700;
inline constexpr size_t kMaxDataRecords = 10;
inline constexpr size_t kMaxSecondaryDataRecords = 5;
inline constexpr size_t kMaxEventEntries = 100;

// Requests and their responses share a number; indications have numbers of their own.
enum MessageId : uint16_t {
  kPassThrough = 0x0000,
  kSetEventReport = 0x0001,
  kGetFeatureStatus = 0x0002,
  kSetFeatureStatus = 0x0003,
  kReadNv = 0x0100,
  kWriteNv = 0x0101,
  kDeleteNv = 0x0102,
  kReadEfs = 0x0103,
  kWriteEfs = 0x0104,
  kDeleteEfs = 0x0105,
  kReadEfsPath = 0x0106,
  kWriteEfsPath = 0x0107,
  kDeleteEfsPath = 0x0108,
  kReadRfnv = 0x0109,
  kWriteRfnv = 0x010A,
  kDeleteRfnv = 0x010B,
  kEfsSync = 0x010C,
  kSetStatsReportStatus = 0x0200,
  kRegisterStats = 0x0201,
  kDeregisterStats = 0x0202,
  kGetStatsParameter = 0x0207,
  kClearStatsParameter = 0x0208,
  kNotifyShutdown = 0x0400,
  kResetModem = 0x0401,

  kStatusIndication = 0x0004,
  kReportAIndication = 0x0203,
  kReportBIndication = 0x0204,
  kReportCIndication = 0x0601,
};

using ResponseHeader = qmi_response_type_v01;
static_assert(sizeof(ResponseHeader) == 8 && offsetof(ResponseHeader, error) == 4);

// --- types of the service ---

// One statistics registration: which statistics, with up to five parameters.
struct StatsEntry {
  uint32_t stats_id;
  uint32_t para_num;
  uint32_t parameters[kMaxStatsParameters];
  uint8_t flag;
  uint64_t block[2];
  uint8_t trailer;
};
static_assert(sizeof(StatsEntry) == 56);
static_assert(offsetof(StatsEntry, parameters) == 8 && offsetof(StatsEntry, flag) == 28);
static_assert(offsetof(StatsEntry, block) == 32 && offsetof(StatsEntry, trailer) == 48);

// One statistics value of a subscription.
struct DataRecord {
  uint16_t sub;
  uint16_t sub_high;
  uint32_t id;
  uint32_t data_len;
  uint8_t data[kMaxDataBytes];
};
static_assert(sizeof(DataRecord) == 712);
static_assert(offsetof(DataRecord, id) == 4 && offsetof(DataRecord, data_len) == 8 && offsetof(DataRecord, data) == 12);

// The service's type table has this type; no message uses it.
struct WordPair {
  uint32_t first;
  uint32_t second;
};
static_assert(sizeof(WordPair) == 8);

// --- requests ---

struct PassThroughRequest {
  uint32_t payload_len;
  uint8_t payload[kMaxPassThroughBytes];
};
static_assert(sizeof(PassThroughRequest) == 516);

struct SetEventReportRequest {
  uint8_t report_ab_valid;
  uint8_t report_ab;
  uint8_t report_c_valid;
  uint8_t report_c;
};
static_assert(sizeof(SetEventReportRequest) == 4);

struct GetFeatureStatusRequest {
  uint32_t feature;
};
static_assert(sizeof(GetFeatureStatusRequest) == 4);

struct SetFeatureStatusRequest {
  uint32_t feature;
  uint8_t enable;
  uint8_t option_valid;
  uint8_t option;
};
static_assert(sizeof(SetFeatureStatusRequest) == 8 && offsetof(SetFeatureStatusRequest, option) == 6);

// Read and delete of an NV item.
struct NvRequest {
  uint32_t item;
  uint8_t qualifier;
  uint16_t index;
};
static_assert(sizeof(NvRequest) == 8 && offsetof(NvRequest, index) == 6);

struct WriteNvRequest {
  uint32_t item;
  uint8_t qualifier;
  uint16_t index;
  uint32_t data_len;
  uint8_t data[kMaxItemBytes];
};
static_assert(sizeof(WriteNvRequest) == 268 && offsetof(WriteNvRequest, data_len) == 8);

// Read and delete of an EFS item addressed by number.
struct EfsRequest {
  uint32_t item;
  uint16_t qualifier;
};
static_assert(sizeof(EfsRequest) == 8);

struct WriteEfsRequest {
  uint32_t item;
  uint16_t qualifier;
  uint32_t data_len;
  uint8_t data[kMaxItemBytes];
};
static_assert(sizeof(WriteEfsRequest) == 268 && offsetof(WriteEfsRequest, data_len) == 8);

// Read and delete of an EFS file addressed by path.
struct EfsPathRequest {
  char path[kMaxPathCharacters + 1];
  uint16_t qualifier;
  uint8_t index;
};
static_assert(sizeof(EfsPathRequest) == 106);
static_assert(offsetof(EfsPathRequest, qualifier) == 102 && offsetof(EfsPathRequest, index) == 104);

struct WriteEfsPathRequest {
  char path[kMaxPathCharacters + 1];
  uint16_t qualifier;
  uint8_t index;
  uint32_t data_len;
  uint8_t data[kMaxItemBytes];
};
static_assert(sizeof(WriteEfsPathRequest) == 368 && offsetof(WriteEfsPathRequest, data_len) == 108);

// Read and delete of an RF NV item.
struct RfnvRequest {
  uint32_t item;
};
static_assert(sizeof(RfnvRequest) == 4);

struct WriteRfnvRequest {
  uint32_t item;
  uint32_t data_len;
  uint8_t data[kMaxItemBytes];
};
static_assert(sizeof(WriteRfnvRequest) == 264 && offsetof(WriteRfnvRequest, data) == 8);

struct EfsSyncRequest {
  int8_t mode;
  uint32_t value;
  uint16_t option;
};
static_assert(sizeof(EfsSyncRequest) == 12 && offsetof(EfsSyncRequest, option) == 8);

struct SetStatsReportStatusRequest {
  uint8_t report;
  uint8_t stats_client_id_valid;
  uint32_t stats_client_id;
};
static_assert(sizeof(SetStatsReportStatusRequest) == 8 && offsetof(SetStatsReportStatusRequest, stats_client_id) == 4);

struct RegisterStatsRequest {
  uint32_t stats_client_id;
  uint32_t entry_count;
  StatsEntry entries[kMaxRegistrations];
  uint8_t option1_valid;
  uint16_t option1;
  uint8_t option2_valid;
  uint16_t option2;
};
static_assert(sizeof(RegisterStatsRequest) == 5616 && offsetof(RegisterStatsRequest, entries) == 8);
static_assert(offsetof(RegisterStatsRequest, option1_valid) == 5608 && offsetof(RegisterStatsRequest, option2) == 5614);

struct DeregisterStatsRequest {
  uint32_t stats_client_id;
  uint32_t id_count;
  uint32_t ids[kMaxRegistrations];
  uint8_t option1_valid;
  uint16_t option1;
  uint8_t option2_valid;
  uint16_t option2;
};
static_assert(sizeof(DeregisterStatsRequest) == 416 && offsetof(DeregisterStatsRequest, option1_valid) == 408);

struct GetStatsParameterRequest {
  uint16_t sub;
  uint16_t slot;
  uint32_t record_count;
  DataRecord records[kMaxDataRecords];
};
static_assert(sizeof(GetStatsParameterRequest) == 7128 && offsetof(GetStatsParameterRequest, records) == 8);

struct ClearStatsParameterRequest {
  uint16_t sub;
  uint16_t slot;
  uint32_t id_count;
  uint32_t ids[kMaxDataRecords];
};
static_assert(sizeof(ClearStatsParameterRequest) == 48);

// A message without TLVs; its structure is one byte without meaning.
struct EmptyRequest {
  uint8_t unused;
};
static_assert(sizeof(EmptyRequest) == 1);

// --- responses ---

// The response to every command that returns only a result.
struct PlainResponse {
  ResponseHeader header;
};
static_assert(sizeof(PlainResponse) == 8);

struct PassThroughResponse {
  ResponseHeader header;
  uint32_t data_len;
  uint8_t data[kMaxPassThroughBytes];
};
static_assert(sizeof(PassThroughResponse) == 524);

struct GetFeatureStatusResponse {
  ResponseHeader header;
  uint8_t enabled;
  uint8_t effective;
};
static_assert(sizeof(GetFeatureStatusResponse) == 12);

// Response of the NV, EFS, EFS path and RF NV reads.
struct ReadResponse {
  ResponseHeader header;
  uint32_t data_len;
  uint8_t data[kMaxItemBytes];
};
static_assert(sizeof(ReadResponse) == 268 && offsetof(ReadResponse, data) == 12);

struct SetStatsReportStatusResponse {
  ResponseHeader header;
  uint8_t stats_client_id_valid;
  uint32_t stats_client_id;
};
static_assert(sizeof(SetStatsReportStatusResponse) == 16);
static_assert(offsetof(SetStatsReportStatusResponse, stats_client_id) == 12);

struct GetStatsParameterResponse {
  ResponseHeader header;
  uint8_t records_valid;
  uint32_t record_count;
  DataRecord records[kMaxDataRecords];
};
static_assert(sizeof(GetStatsParameterResponse) == 7136 && offsetof(GetStatsParameterResponse, records) == 16);

// --- indications ---

struct StatusIndication {
  uint32_t value;
  uint8_t flag1;
  uint8_t flag2;
};
static_assert(sizeof(StatusIndication) == 8);

struct ReportAIndication {
  uint32_t value;
  uint32_t record_count;
  DataRecord records[kMaxDataRecords];
  uint8_t secondary_valid;
  uint32_t secondary_count;
  DataRecord secondary[kMaxSecondaryDataRecords];
  uint8_t trailer_valid;
  uint32_t trailer;
};
static_assert(sizeof(ReportAIndication) == 10704 && offsetof(ReportAIndication, secondary_valid) == 7128);
static_assert(offsetof(ReportAIndication, secondary) == 7136 && offsetof(ReportAIndication, trailer_valid) == 10696);

struct ReportBIndication {
  uint32_t value;
  uint32_t entry_count;
  uint8_t entries[kMaxEventEntries];
  uint16_t first;
  uint16_t second;
};
static_assert(sizeof(ReportBIndication) == 112 && offsetof(ReportBIndication, first) == 108);

struct ReportCIndication {
  uint8_t value;
};
static_assert(sizeof(ReportCIndication) == 1);

}  // namespace pelmar::vs
