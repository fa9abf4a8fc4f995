// The NAS service client of subscription 1. Only names and numbers differ from nas_0_client.cpp, which describes both.
#include "nas_client.h"

#include "nas_requests.h"
#include "pelmar_log_site.h"
#include "service_client.h"

reconnecting_client_context nas_1_client_info;

namespace pelmar {
namespace {

constinit ServiceClientState g_state;

constexpr ServiceClient kClient = {
    .type = MODEM_API_CLIENT_NAS_1,
    .context = fields_of(nas_1_client_info),
    .entry = {.command = nas_1_client_command_cb,
              .indication = nas_1_client_unsol_ind_cb,
              .service_down = nas_1_client_service_down_event,
              .service_up = nas_1_client_service_up_event,
              .release_thread = nas_1_client_release_qmi_client_thread,
              .resume_thread = nas_1_client_resume_qmi_client_thread},
    .places = {.init_handles = PELMAR_PLACE_AS("nas_1_client_init_client_handles"),
               .suspend = PELMAR_PLACE_AS("nas_1_client_enter_suspend"),
               .resume = PELMAR_PLACE_AS("nas_1_client_enter_resume"),
               .ind_hdlr = PELMAR_PLACE_AS("nas_1_client_ind_hdlr")},
    .service_object = nas::get_service_object,
    .after_attempt = nas::bind_subscription<1>,
    .before_error_callback = nas_1_client_set_networking_indications,
    .state = g_state,
};

}  // namespace
}  // namespace pelmar

using namespace pelmar;

void nas_1_init() {
  Operation operation(PELMAR_HERE);
  prepare(kClient);
}

void nas_1_client_set_operational_status_callback(modem_api_operational_status_fn callback) {
  Operation operation(PELMAR_HERE);
  set_status_callback(kClient, callback);
}

bool nas_1_client_init(modem_api_event_cb event_cb) {
  return open(kClient, PELMAR_HERE, event_cb);
}

bool nas_1_client_init_client_handles() {
  return connect_silently(kClient);
}

bool nas_1_client_release() {
  Operation operation(PELMAR_HERE);
  release(kClient);
  return operation.exit(true);
}

int32_t nas_1_client_send_msg_sync(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                                   uint32_t response_length) {
  Operation operation(PELMAR_HERE);
  return operation.exit(send_sync(kClient, msg_id, request, request_length, response, response_length));
}

int32_t nas_1_client_send_msg_async(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                                    uint32_t response_length, void* callback_data) {
  Operation operation(PELMAR_HERE);
  return operation.exit(send_async(kClient, msg_id, request, request_length, response, response_length, callback_data));
}

int32_t nas_1_client_set_networking_indications() {
  Operation operation(PELMAR_HERE);
  const int32_t code = nas::register_indications(load(nas_1_client_info.client_handle));
  PELMAR_LOG_DEBUG("enable_indication result: %d", code);
  return operation.exit(code);
}

void nas_1_client_command_cb(qmi_client_type handle, unsigned int msg_id, void* response, unsigned int response_length,
                             void* callback_data, qmi_client_error_type transport_error) {
  Operation operation(PELMAR_HERE);
  handle_response(handle, msg_id, response, response_length, callback_data, transport_error);
}

void nas_1_client_unsol_ind_cb(qmi_client_type handle, unsigned int msg_id, void* buffer, unsigned int length, void*) {
  Operation operation(PELMAR_HERE);
  handle_indication(kClient, operation.here(), handle, msg_id, buffer, length);
}

void nas_1_client_service_down_event(qmi_client_type handle, qmi_client_error_type error, void*) {
  Operation operation(PELMAR_HERE);
  handle_service_down(kClient, operation.here(), handle, error);
}

void nas_1_client_service_up_event(qmi_client_type, qmi_idl_service_object_type, qmi_client_notify_event_type event,
                                   void*) {
  Operation operation(PELMAR_HERE);
  handle_service_up(kClient, event);
}

void* nas_1_client_release_qmi_client_thread(void* generation) {
  Operation operation(PELMAR_HERE);
  release_after_service_down(kClient, operation.here(), generation);
  return nullptr;
}

void* nas_1_client_resume_qmi_client_thread(void* generation) {
  Operation operation(PELMAR_HERE);
  resume_after_service_up(kClient, generation);
  return nullptr;
}
