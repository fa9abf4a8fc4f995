// The framework's functions as the phone declares them. They check the arguments and look up the handle; Client and
// Notifier do the rest.
#include "qmi_client.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>

#include "client.h"
#include "handle.h"
#include "message_trace.h"
#include "notifier.h"
#include "observer.h"
#include "platform_export.h"
#include "qmi_idl_lib_internal.h"
#include "transport.h"

namespace pelmar::platform {
namespace {

// The pauses between attempts to open an absent service double from the first of these to the second.
constexpr Deadline::Milliseconds kFirstRetry{1};
constexpr Deadline::Milliseconds kSlowestRetry{100};

// If the modem is there, an open may take this much longer than the caller's time-out: callers allow a few milliseconds
// for a service to appear, but a modem may need some hundred for its first response.
constexpr Deadline::Milliseconds kExtraOpenTime{1000};

// The longest delay of a process's end by all its connections together.
constexpr Deadline::Milliseconds kExitTimeout{300};

HandleTable<Client>& clients() {
  return HandleTable<Client>::of_this_process();
}

HandleTable<Notifier>& notifiers() {
  return HandleTable<Notifier>::of_this_process();
}

// A modem has few client ids, so a process that ends without releasing its handles releases their ids.
void release_clients_at_exit() {
  static std::atomic<bool> is_registered{false};
  if (is_registered.exchange(true)) return;
  std::atexit([] {
    const Deadline deadline = Deadline::after(kExitTimeout);
    for (const auto& client : clients().all()) client->release_at_exit(deadline);
  });
}

int32_t open_in_time(qmi_idl_service_object_type service, qmi_service_instance instance, Deadline::Milliseconds timeout,
                     std::unique_ptr<Connection>& connection) {
  const Deadline deadline = Deadline::after(timeout);
  const Deadline response_deadline = Deadline::after(timeout + kExtraOpenTime);
  const size_t message_capacity = qmi::kMessageHeaderLength + service->max_msg_len;
  for (auto pause = kFirstRetry;; pause = std::min(2 * pause, kSlowestRetry)) {
    const int32_t error =
        open_connection({service->service_id, instance}, message_capacity, response_deadline, connection);
    if (error != QMI_TIMEOUT_ERR || deadline.has_passed()) return error;
    std::this_thread::sleep_for(std::min(pause, deadline.remaining()));
  }
}

Deadline send_deadline(unsigned timeout_ms) {
  return timeout_ms == 0 ? Deadline::none() : Deadline::after(Deadline::Milliseconds(timeout_ms));
}

}  // namespace
}  // namespace pelmar::platform

using namespace pelmar::platform;

extern "C" {

PELMAR_PLATFORM_EXPORT qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service_obj,
                                                                      qmi_service_instance instance_id,
                                                                      qmi_client_ind_cb ind_cb, void* ind_cb_data,
                                                                      qmi_client_os_params* /*os_params*/,
                                                                      uint32_t timeout, qmi_client_type* user_handle) {
  if (user_handle == nullptr) return QMI_CLIENT_PARAM_ERR;
  *user_handle = nullptr;
  if (service_obj == nullptr) return QMI_CLIENT_PARAM_ERR;
  return guarded(QMI_INTERNAL_ERR, [&]() -> qmi_client_error_type {
    release_clients_at_exit();
    std::unique_ptr<Connection> connection;
    const int32_t error = open_in_time(service_obj, instance_id, Deadline::Milliseconds(timeout), connection);
    if (error != QMI_NO_ERR) return error;

    const qmi_client_type handle = new_handle<>();
    const auto client = std::make_shared<Client>(service_obj, Client::IndicationCallback{ind_cb, ind_cb_data},
                                                 std::move(connection), handle);
    clients().add(handle, client);
    *user_handle = handle;  // stored before a callback can use it
    try {
      client->start();
    } catch (...) {
      *user_handle = nullptr;
      if (const auto own = clients().remove(handle)) own->release();
      throw;
    }
    return QMI_NO_ERR;
  });
}

PELMAR_PLATFORM_EXPORT qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service_obj,
                                                                      qmi_client_os_params* /*os_params*/,
                                                                      qmi_client_type* user_handle) {
  if (user_handle == nullptr) return QMI_CLIENT_PARAM_ERR;
  *user_handle = nullptr;
  if (service_obj == nullptr) return QMI_CLIENT_PARAM_ERR;
  return guarded(QMI_INTERNAL_ERR, [&]() -> qmi_client_error_type {
    const qmi_client_type handle = new_handle<>();
    notifiers().add(handle, std::make_shared<Notifier>(service_obj, handle));
    *user_handle = handle;
    return QMI_NO_ERR;
  });
}

PELMAR_PLATFORM_EXPORT qmi_client_error_type qmi_client_register_error_cb(qmi_client_type user_handle,
                                                                          qmi_client_error_cb err_cb,
                                                                          void* err_cb_data) {
  const auto client = clients().find(user_handle);
  if (client == nullptr) return QMI_CLIENT_INVALID_CLNT;
  return guarded(QMI_INTERNAL_ERR, [&] { return client->register_error_callback(err_cb, err_cb_data); });
}

PELMAR_PLATFORM_EXPORT qmi_client_error_type qmi_client_register_notify_cb(qmi_client_type user_handle,
                                                                           qmi_client_notify_cb notify_cb,
                                                                           void* notify_cb_data) {
  const auto notifier = notifiers().find(user_handle);
  if (notifier == nullptr) return QMI_CLIENT_INVALID_CLNT;
  return guarded(QMI_INTERNAL_ERR, [&] { return notifier->register_callback(notify_cb, notify_cb_data); });
}

PELMAR_PLATFORM_EXPORT qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type user_handle, unsigned int msg_id,
                                                                      void* req_c_struct, unsigned int req_c_struct_len,
                                                                      void* resp_c_struct,
                                                                      unsigned int resp_c_struct_len,
                                                                      unsigned int timeout_msecs) {
  const auto client = clients().find(user_handle);
  if (client == nullptr) return QMI_CLIENT_INVALID_CLNT;
  if (msg_id > UINT16_MAX) return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;
  const Client::Request request = {static_cast<uint16_t>(msg_id), req_c_struct, req_c_struct_len, resp_c_struct,
                                   resp_c_struct_len};
  const int32_t error = client->send_sync(request, send_deadline(timeout_msecs));
  observe_end(error, resp_c_struct, resp_c_struct_len);
  return error;
}

PELMAR_PLATFORM_EXPORT qmi_client_error_type
qmi_client_send_msg_async(qmi_client_type user_handle, unsigned int msg_id, void* req_c_struct,
                          unsigned int req_c_struct_len, void* resp_c_struct, unsigned int resp_c_struct_len,
                          qmi_client_recv_msg_async_cb resp_cb, void* resp_cb_data, qmi_txn_handle* txn_handle) {
  const auto client = clients().find(user_handle);
  if (client == nullptr) return QMI_CLIENT_INVALID_CLNT;
  if (resp_cb == nullptr) return QMI_CLIENT_PARAM_ERR;
  if (msg_id > UINT16_MAX) return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;
  const Client::Request request = {static_cast<uint16_t>(msg_id), req_c_struct, req_c_struct_len, resp_c_struct,
                                   resp_c_struct_len};
  return client->send_async(request, {resp_cb, resp_cb_data}, txn_handle);
}

PELMAR_PLATFORM_EXPORT qmi_client_error_type qmi_client_message_decode(qmi_client_type user_handle,
                                                                       qmi_idl_type_of_message_type req_resp_ind,
                                                                       unsigned int message_id, const void* p_src,
                                                                       unsigned int src_len, void* p_dst,
                                                                       unsigned int dst_len) {
  const auto client = clients().find(user_handle);
  if (client == nullptr) return QMI_CLIENT_INVALID_CLNT;
  if (message_id > UINT16_MAX) return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;
  return client->decode(req_resp_ind, static_cast<uint16_t>(message_id), p_src, src_len, p_dst, dst_len);
}

PELMAR_PLATFORM_EXPORT qmi_client_error_type qmi_client_release(qmi_client_type user_handle) {
  if (const auto client = clients().remove(user_handle)) {
    client->release();
  } else if (const auto notifier = notifiers().remove(user_handle)) {
    notifier->release();
  } else {
    return QMI_CLIENT_INVALID_CLNT;
  }
  return QMI_NO_ERR;
}

PELMAR_PLATFORM_EXPORT void pelmar_platform_inspect_modem(ModemReport* report) {
  *report = inspect_modem();
}

PELMAR_PLATFORM_EXPORT void pelmar_platform_list_client_ids(std::vector<HeldClientId>* ids) {
  *ids = list_modem_client_ids();
}

PELMAR_PLATFORM_EXPORT void pelmar_platform_observe_qmi(Observer observer) {
  g_observer = observer;
}

PELMAR_PLATFORM_EXPORT const char* pelmar_platform_trace_problem() {
  return guarded("there is no memory for it", trace_problem);
}

}  // extern "C"
