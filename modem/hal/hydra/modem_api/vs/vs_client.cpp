// The vendor-specific service client: the service's description, and the connection for the library's own commands and
// for modem events.
//
// Each of the four indications becomes one event with a payload of fixed size. The payload is on the stack, and zero
// where the indication has no field; counts and lengths from the modem are cut to the payload's capacity.
//
// Compatibility: the client does not reconnect. A lost service is only logged, and later sends return the framework's
// code.
#include "vs_client.h"

#include <algorithm>
#include <cstring>

#include "pelmar_log_site.h"
#include "service_client.h"
#include "vs_tables.h"

vs_client_context vs_client_info;

namespace pelmar::vs {
namespace {

constexpr uint32_t kNoTrailer = 0xFFFFFFFF;

void convert(const StatusIndication& indication, modem_api_vs_status_event& event) {
  event.value = indication.value;
  event.flag1 = indication.flag1 != 0 ? 1 : 0;
  event.flag2 = indication.flag2 != 0 ? 1 : 0;
}

// Returns how many records were copied.
template <size_t kCapacity>
uint32_t convert_records(const DataRecord (&from)[kCapacity], uint32_t count, modem_api_event_record (&to)[kCapacity]) {
  const uint32_t copied = std::min<uint32_t>(count, kCapacity);
  for (uint32_t i = 0; i < copied; ++i) {
    to[i].id = from[i].id;
    to[i].data_len = std::min<uint32_t>(from[i].data_len, kMaxDataBytes);
    std::memcpy(to[i].data, from[i].data, to[i].data_len);
    to[i].sub = from[i].sub;
    to[i].sub_high = from[i].sub_high;
  }
  return copied;
}

void convert(const ReportAIndication& indication, modem_api_vs_report_a_event& event) {
  event.value = indication.value;
  event.record_count = convert_records(indication.records, indication.record_count, event.records);
  // If the list is absent, its count is 0.
  event.secondary_count = convert_records(indication.secondary, indication.secondary_count, event.secondary);
  event.trailer = indication.trailer_valid != 0 ? indication.trailer : kNoTrailer;
}

void convert(const ReportBIndication& indication, modem_api_vs_report_b_event& event) {
  event.value = indication.value;
  event.entry_count = std::min<uint32_t>(indication.entry_count, kMaxEventEntries);
  std::copy_n(indication.entries, event.entry_count, event.entries);
  event.first = indication.first;
  event.second = indication.second;
}

void convert(const ReportCIndication& indication, modem_api_vs_report_c_event& event) {
  event.value = indication.value;
}

template <typename Indication, typename Event>
void deliver(modem_api_event id, const void* decoded, modem_api_event_cb event_cb) {
  Event event;
  std::memset(&event, 0, sizeof(event));
  convert(*static_cast<const Indication*>(decoded), event);
  event_cb(id, reinterpret_cast<const uint8_t*>(&event), sizeof(event));
}

struct EventRow {
  MessageId indication;
  modem_api_event event;
  void (*deliver)(modem_api_event id, const void* decoded, modem_api_event_cb event_cb);
};

constexpr EventRow kEvents[] = {
    {kStatusIndication, MODEM_API_EVENT_VS_STATUS, deliver<StatusIndication, modem_api_vs_status_event>},
    {kReportAIndication, MODEM_API_EVENT_VS_REPORT_A, deliver<ReportAIndication, modem_api_vs_report_a_event>},
    {kReportBIndication, MODEM_API_EVENT_VS_REPORT_B, deliver<ReportBIndication, modem_api_vs_report_b_event>},
    {kReportCIndication, MODEM_API_EVENT_VS_REPORT_C, deliver<ReportCIndication, modem_api_vs_report_c_event>},
};

// Converts a decoded indication to an event and calls the callback with it, once. False: the indication is no event.
bool deliver_event(uint32_t msg_id, const void* decoded, modem_api_event_cb event_cb) {
  for (const EventRow& row : kEvents) {
    if (row.indication == msg_id) {
      row.deliver(row.event, decoded, event_cb);
      return true;
    }
  }
  return false;
}

qmi_idl_service_object_type get_service_object() {
  return vs_get_service_object_internal_v01(vs::kIdlMajorVersion, vs::kIdlMinorVersion, vs::kIdlLibraryVersion);
}

constinit ServiceClientState g_state;

constexpr ServiceClient kClient = {
    .type = MODEM_API_CLIENT_VS,
    .context = fields_of(vs_client_info),
    .entry = {.command = vs_client_command_cb,
              .indication = vs_client_unsol_ind_cb,
              .service_down = vs_client_service_down_event},
    .places = {.master_port = PELMAR_PLACE_AS("vs_client_get_master_port"),
               .ind_hdlr = PELMAR_PLACE_AS("vs_client_ind_hdlr")},
    .indications = {.no_event_callback = "The hydra is not inited, do nothing",
                    .no_memory = "decoded_payload is NULL",
                    .needs_size = true,
                    .deliver = vs::deliver_event},
    .service_object = get_service_object,
    .state = g_state,
};

}  // namespace
}  // namespace pelmar::vs

using namespace pelmar;
using namespace pelmar::vs;

constinit const qmi_idl_service_object vs_qmi_idl_service_object_v01 =
    Tables::service(kServiceId, kIdlMajorVersion, kIdlMinorVersion, kIdlLibraryVersion);

qmi_idl_service_object_type vs_get_service_object_internal_v01(uint32_t idl_major, int32_t idl_minor,
                                                               int32_t library_version) {
  Operation operation(PELMAR_HERE);
  const bool matches = idl_major == vs::kIdlMajorVersion && idl_minor == static_cast<int32_t>(vs::kIdlMinorVersion) &&
                       library_version == static_cast<int32_t>(vs::kIdlLibraryVersion);
  return matches ? &vs_qmi_idl_service_object_v01 : nullptr;
}

qmi_idl_service_object_type vs_init() {
  Operation operation(PELMAR_HERE);
  prepare(kClient);
  return load(vs_client_info.service_object);
}

void vs_client_set_operational_status_callback(modem_api_operational_status_fn callback) {
  Operation operation(PELMAR_HERE);
  set_status_callback(kClient, callback);
}

bool vs_client_init(modem_api_event_cb event_cb) {
  return open(kClient, PELMAR_HERE, event_cb);
}

bool vs_client_release() {
  Operation operation(PELMAR_HERE);
  release(kClient);
  return operation.exit(true);
}

int32_t vs_client_send_msg_sync(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                                uint32_t response_length) {
  Operation operation(PELMAR_HERE);
  return operation.exit(send_sync(kClient, msg_id, request, request_length, response, response_length));
}

int32_t vs_client_send_msg_async(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                                 uint32_t response_length, void* callback_data) {
  Operation operation(PELMAR_HERE);
  return operation.exit(send_async(kClient, msg_id, request, request_length, response, response_length, callback_data));
}

void vs_client_command_cb(qmi_client_type handle, unsigned int msg_id, void* response, unsigned int response_length,
                          void* callback_data, qmi_client_error_type transport_error) {
  Operation operation(PELMAR_HERE);
  handle_response(handle, msg_id, response, response_length, callback_data, transport_error);
}

void vs_client_unsol_ind_cb(qmi_client_type handle, unsigned int msg_id, void* buffer, unsigned int length, void*) {
  Operation operation(PELMAR_HERE);
  handle_indication(kClient, operation.here(), handle, msg_id, buffer, length);
}

void vs_client_service_down_event(qmi_client_type handle, qmi_client_error_type error, void*) {
  Operation operation(PELMAR_HERE);
  handle_service_down(kClient, operation.here(), handle, error);
}
