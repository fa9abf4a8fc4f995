// The vendor-specific service client: the connection that carries the library's own commands and brings modem events.
//
// Compatibility: it does not come back by itself. A lost service is logged and nothing else, and later sends return the
// framework's code.
#include "vs_client.h"

#include "pelmar_log_site.h"
#include "service_client.h"
#include "shared_word.h"
#include "vs_events.h"
#include "vs_messages.h"

vs_client_context vs_client_info;

namespace pelmar {
namespace {

qmi_idl_service_object_type get_service_object() {
  return vs_get_service_object_internal_v01(vs::kIdlMajorVersion, vs::kIdlMinorVersion, vs::kIdlLibraryVersion);
}

constinit ServiceClientState g_state;

constexpr ServiceClient kClient = {
    .type = MODEM_API_CLIENT_VS,
    .context = fields_of(vs_client_info),
    .entry = {.command = vs_client_command_cb,
              .indication = vs_client_unsol_ind_cb,
              .service_down = vs_client_service_down_event,
              .service_up = nullptr,
              .release_thread = nullptr,
              .resume_thread = nullptr},
    .places = {.master_port = PELMAR_PLACE_AS("vs_client_get_master_port"),
               .init_handles = {},
               .suspend = {},
               .resume = {},
               .ind_hdlr = PELMAR_PLACE_AS("vs_client_ind_hdlr")},
    .indications = {.no_event_callback = "The hydra is not inited, do nothing",
                    .no_memory = "decoded_payload is NULL",
                    .needs_size = true,
                    .deliver = vs::deliver_event},
    .logs_first_try = true,
    .service_object = get_service_object,
    .after_attempt = nullptr,
    .before_error_callback = nullptr,
    .state = g_state,
};

}  // namespace
}  // namespace pelmar

using namespace pelmar;

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
