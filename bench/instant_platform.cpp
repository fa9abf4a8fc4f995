#include "instant_platform.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "cutils/properties.h"
#include "pm-service.h"
#include "qmi_client.h"
#include "qmi_codec.h"

struct qmi_client_struct {
  qmi_idl_service_object_type service;
};

namespace {

qmi_client_struct g_connection;
const void* g_response;
size_t g_response_length;
void (*g_write_line)(const char* line);

}  // namespace

namespace pelmar::instant_platform {

void set_response(const void* structure, size_t length) {
  g_response = structure;
  g_response_length = length;
}

void set_log(void (*write)(const char* line)) {
  g_write_line = write;
}

}  // namespace pelmar::instant_platform

#pragma GCC visibility push(default)
extern "C" {

// --- QMI client framework ---

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service, qmi_service_instance,
                                               qmi_client_ind_cb, void*, qmi_client_os_params*, uint32_t,
                                               qmi_client_type* handle) {
  g_connection.service = service;
  *handle = &g_connection;
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type, qmi_client_os_params*,
                                               qmi_client_type* handle) {
  *handle = &g_connection;
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type, qmi_client_error_cb, void*) {
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_register_notify_cb(qmi_client_type, qmi_client_notify_cb, void*) {
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type, unsigned, void*, unsigned, void* response,
                                               unsigned length, unsigned) {
  std::memcpy(response, g_response, std::min<size_t>(length, g_response_length));
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_send_msg_async(qmi_client_type handle, unsigned msg_id, void* request,
                                                unsigned request_length, void* response, unsigned length,
                                                qmi_client_recv_msg_async_cb callback, void* data, qmi_txn_handle*) {
  const auto code = qmi_client_send_msg_sync(handle, msg_id, request, request_length, response, length, 0);
  callback(handle, msg_id, response, length, data, code);
  return QMI_NO_ERR;
}

qmi_client_error_type qmi_client_message_decode(qmi_client_type handle, qmi_idl_type_of_message_type type,
                                                unsigned msg_id, const void* bytes, unsigned length, void* structure,
                                                unsigned structure_length) {
  return pelmar::qmi::decode(handle->service, type, static_cast<uint16_t>(msg_id), static_cast<const uint8_t*>(bytes),
                             length, structure, structure_length);
}

qmi_client_error_type qmi_client_release(qmi_client_type) {
  return QMI_NO_ERR;
}

// --- properties: none is set, none can be ---

int property_get(const char*, char* value, const char* default_value) {
  std::snprintf(value, PROPERTY_VALUE_MAX, "%s", default_value != nullptr ? default_value : "");
  return static_cast<int>(std::strlen(value));
}

int property_set(const char*, const char*) {
  return -1;
}

// --- peripheral manager ---

int pm_client_register(pm_client_event_cb, void*, const char*, const char*, enum pm_event* state, void** handle) {
  *state = EVENT_PERIPH_IS_ONLINE;
  *handle = &g_connection;
  return PM_RET_SUCCESS;
}

int pm_client_connect(void*) {
  return PM_RET_SUCCESS;
}

int pm_client_disconnect(void*) {
  return PM_RET_SUCCESS;
}

int pm_client_unregister(void*) {
  return PM_RET_SUCCESS;
}

int pm_client_event_acknowledge(void*, enum pm_event) {
  return PM_RET_SUCCESS;
}

// --- C library ---

void vsyslog(int, const char* format, va_list arguments) {
  if (g_write_line == nullptr) return;
  char line[1024];
  std::vsnprintf(line, sizeof line, format, arguments);
  g_write_line(line);
}

unsigned sleep(unsigned) {
  return 0;
}

}  // extern "C"
#pragma GCC visibility pop
