// The SAR service client. It delivers no event: the service has no indication that the library uses.
#include "sar_client.h"

#include "pelmar_log_site.h"
#include "service_client.h"
#include "specific_absorption_rate_v01.h"

reconnecting_client_context sar_client_info;

namespace pelmar {
namespace {

qmi_idl_service_object_type get_service_object() {
  return sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS);
}

constinit ServiceClientState g_state;

constexpr ServiceClient kClient = {
    .type = MODEM_API_CLIENT_SAR,
    .context = fields_of(sar_client_info),
    .entry = {.command = sar_client_command_cb,
              .indication = sar_client_unsol_ind_cb,
              .service_down = sar_client_service_down_event,
              .service_up = sar_client_service_up_event,
              .release_thread = sar_client_release_qmi_client_thread,
              .resume_thread = sar_client_resume_qmi_client_thread},
    .places = {.init_handles = PELMAR_PLACE_AS("sar_client_init_client_handles"),
               .suspend = PELMAR_PLACE_AS("sar_client_enter_suspend"),
               .resume = PELMAR_PLACE_AS("sar_client_enter_resume"),
               .ind_hdlr = PELMAR_PLACE_AS("sar_client_ind_hdlr")},
    .logs_first_try = false,  // Compatibility: only the later attempts are logged.
    .service_object = get_service_object,
    .state = g_state,
};

}  // namespace
}  // namespace pelmar

using namespace pelmar;

void sar_init() {
  Operation operation(PELMAR_HERE);
  prepare(kClient);
}

void sar_client_set_operational_status_callback(modem_api_operational_status_fn callback) {
  Operation operation(PELMAR_HERE);
  set_status_callback(kClient, callback);
}

bool sar_client_init(modem_api_event_cb event_cb) {
  return open(kClient, PELMAR_HERE, event_cb);
}

bool sar_client_init_client_handles() {
  return connect_silently(kClient);
}

bool sar_client_release() {
  Operation operation(PELMAR_HERE);
  release(kClient);
  return operation.exit(true);
}

int32_t sar_client_send_msg_sync(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                                 uint32_t response_length) {
  Operation operation(PELMAR_HERE);
  return operation.exit(send_sync(kClient, msg_id, request, request_length, response, response_length));
}

int32_t sar_client_send_msg_async(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                                  uint32_t response_length, void* callback_data) {
  Operation operation(PELMAR_HERE);
  return operation.exit(send_async(kClient, msg_id, request, request_length, response, response_length, callback_data));
}

void sar_client_command_cb(qmi_client_type handle, unsigned int msg_id, void* response, unsigned int response_length,
                           void* callback_data, qmi_client_error_type transport_error) {
  Operation operation(PELMAR_HERE);
  handle_response(handle, msg_id, response, response_length, callback_data, transport_error);
}

void sar_client_unsol_ind_cb(qmi_client_type handle, unsigned int msg_id, void* buffer, unsigned int length, void*) {
  Operation operation(PELMAR_HERE);
  handle_indication(kClient, operation.here(), handle, msg_id, buffer, length);
}

void sar_client_service_down_event(qmi_client_type handle, qmi_client_error_type error, void*) {
  Operation operation(PELMAR_HERE);
  handle_service_down(kClient, operation.here(), handle, error);
}

void sar_client_service_up_event(qmi_client_type, qmi_idl_service_object_type, qmi_client_notify_event_type event,
                                 void*) {
  Operation operation(PELMAR_HERE);
  handle_service_up(kClient, event);
}

void* sar_client_release_qmi_client_thread(void* generation) {
  Operation operation(PELMAR_HERE);
  release_after_service_down(kClient, operation.here(), generation);
  return nullptr;
}

void* sar_client_resume_qmi_client_thread(void* generation) {
  Operation operation(PELMAR_HERE);
  resume_after_service_up(kClient, generation);
  return nullptr;
}
