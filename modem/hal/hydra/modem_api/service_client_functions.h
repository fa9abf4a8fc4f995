// The bodies of the exported functions that every service client has, by prefix and description.
//
// Each function logs entry and exit under its own name; what it does is in service_client.h.
#pragma once

#include "modem_api.h"
#include "pelmar_log_site.h"
#include "service_client.h"

// clang-format off
#define PELMAR_SERVICE_CLIENT_FUNCTIONS(prefix, client)                                                               \
  void prefix##_client_set_operational_status_callback(modem_api_operational_status_fn callback) {                    \
    PELMAR_LOG_ENTRY();                                                                                               \
    pelmar::set_status_callback(client, callback);                                                                    \
    PELMAR_LOG_EXIT();                                                                                                \
  }                                                                                                                   \
  bool prefix##_client_init(modem_api_event_cb event_cb) { return pelmar::open(client, event_cb); }                   \
  bool prefix##_client_release() {                                                                                    \
    PELMAR_LOG_ENTRY();                                                                                               \
    pelmar::release(client);                                                                                          \
    PELMAR_LOG_EXIT_RET(1);                                                                                           \
    return true;                                                                                                      \
  }                                                                                                                   \
  int32_t prefix##_client_send_msg_sync(uint32_t msg_id, void* request, uint32_t request_length, void* response,      \
                                        uint32_t response_length) {                                                   \
    PELMAR_LOG_ENTRY();                                                                                               \
    const int32_t code =                                                                                              \
        pelmar::send_sync(client, msg_id, request, request_length, response, response_length);                        \
    PELMAR_LOG_EXIT_RET(code);                                                                                        \
    return code;                                                                                                      \
  }                                                                                                                   \
  int32_t prefix##_client_send_msg_async(uint32_t msg_id, void* request, uint32_t request_length, void* response,     \
                                         uint32_t response_length, void* callback_data) {                             \
    PELMAR_LOG_ENTRY();                                                                                               \
    const int32_t code =                                                                                              \
        pelmar::send_async(client, msg_id, request, request_length, response, response_length, callback_data);        \
    PELMAR_LOG_EXIT_RET(code);                                                                                        \
    return code;                                                                                                      \
  }                                                                                                                   \
  void prefix##_client_command_cb(qmi_client_type handle, unsigned int msg_id, void* response,                       \
                                  unsigned int response_length, void* callback_data,                                  \
                                  qmi_client_error_type transport_error) {                                            \
    PELMAR_LOG_ENTRY();                                                                                               \
    const pelmar::InCallback in_callback(handle);                                                                     \
    modem_api_process_response(msg_id, response, response_length, callback_data, transport_error);                    \
    PELMAR_LOG_EXIT();                                                                                                \
  }                                                                                                                   \
  void prefix##_client_unsol_ind_cb(qmi_client_type handle, unsigned int msg_id, void* buffer, unsigned int length,   \
                                    void*) {                                                                          \
    PELMAR_LOG_ENTRY();                                                                                               \
    pelmar::handle_indication(client, handle, msg_id, buffer, length);                                                \
    PELMAR_LOG_EXIT();                                                                                                \
  }                                                                                                                   \
  void prefix##_client_service_down_event(qmi_client_type handle, qmi_client_error_type error, void*) {               \
    PELMAR_LOG_ENTRY();                                                                                               \
    pelmar::handle_service_down(client, handle, error);                                                               \
    PELMAR_LOG_EXIT();                                                                                                \
  }

// What a client that reconnects has besides.
#define PELMAR_RECONNECTING_CLIENT_FUNCTIONS(prefix, client)                                                          \
  PELMAR_SERVICE_CLIENT_FUNCTIONS(prefix, client)                                                                     \
  void prefix##_init() {                                                                                              \
    PELMAR_LOG_ENTRY();                                                                                               \
    pelmar::prepare(client);                                                                                          \
    PELMAR_LOG_EXIT();                                                                                                \
  }                                                                                                                   \
  bool prefix##_client_init_client_handles() { return pelmar::connect_silently(client); }                             \
  void prefix##_client_service_up_event(qmi_client_type, qmi_idl_service_object_type,                                 \
                                        qmi_client_notify_event_type event, void*) {                                  \
    PELMAR_LOG_ENTRY();                                                                                               \
    pelmar::handle_service_up(client, event);                                                                         \
    PELMAR_LOG_EXIT();                                                                                                \
  }                                                                                                                   \
  void* prefix##_client_release_qmi_client_thread(void* generation) {                                                 \
    PELMAR_LOG_ENTRY();                                                                                               \
    pelmar::release_after_service_down(client, generation);                                                           \
    PELMAR_LOG_EXIT();                                                                                                \
    return nullptr;                                                                                                   \
  }                                                                                                                   \
  void* prefix##_client_resume_qmi_client_thread(void* generation) {                                                  \
    PELMAR_LOG_ENTRY();                                                                                               \
    pelmar::resume_after_service_up(client, generation);                                                              \
    PELMAR_LOG_EXIT();                                                                                                \
    return nullptr;                                                                                                   \
  }

// The description of a reconnecting client: everything that its prefix decides.
#define PELMAR_RECONNECTING_CLIENT(prefix, client_type, first_try_is_logged, get_service_object, attempted, connected) \
  {                                                                                                                   \
    .type = client_type, .context = pelmar::fields_of(prefix##_client_info),                                          \
    .entry = {prefix##_client_command_cb, prefix##_client_unsol_ind_cb, prefix##_client_service_down_event,           \
              prefix##_client_service_up_event, prefix##_client_release_qmi_client_thread,                            \
              prefix##_client_resume_qmi_client_thread},                                                              \
    .names = {.init = #prefix "_client_init", .master_port = nullptr,                                                 \
              .init_handles = #prefix "_client_init_client_handles", .unsol_ind = #prefix "_client_unsol_ind_cb",     \
              .service_down = #prefix "_client_service_down_event", .suspend = #prefix "_client_enter_suspend",       \
              .resume = #prefix "_client_enter_resume", .release_thread = #prefix "_client_release_qmi_client_thread", \
              .ind_hdlr = #prefix "_client_ind_hdlr"},                                                                \
    .indications = {.no_event_callback = "Unexpected NULL pointer!", .no_memory = "Unexpected NULL pointer!",         \
                    .needs_size = false, .deliver = nullptr},                                                         \
    .logs_first_try = first_try_is_logged, .service_object = get_service_object, .after_attempt = attempted,          \
    .before_error_callback = connected, .state = g_##prefix##_client_state                                            \
  }
// clang-format on
