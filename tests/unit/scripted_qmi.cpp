// The QMI framework: handles, sends that end as a test sets them, and callbacks that a test sets off. The codec is the
// real one.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>

#include "qmi_codec.h"
#include "scripted_platform.h"

// One handle of the scripted framework.
struct qmi_client_struct {
  qmi_idl_service_object_type service = nullptr;
  std::function<void(unsigned msg_id, scripted::Bytes wire)> indication;
  std::function<void(int error)> error;
  std::function<void(qmi_client_notify_event_type event)> notify;
  bool is_open = true;
  int running_callbacks = 0;
};

namespace scripted {

std::function<Outcome(const Call&)>& on_send = kNewObject;
std::function<int(const Call&)>& on_send_async = kNewObject;
std::function<int(int)>& on_init_instance = kNewObject;
std::function<int(unsigned, uint8_t*, unsigned)>& on_decode = kNewObject;
std::function<void(const Call&)>& on_registered = kNewObject;
int notifier_init_result = 0;
int register_notify_result = 0;

namespace {

struct PendingSend {
  qmi_client_type handle;
  void* response;
  unsigned response_length;
  std::function<void(unsigned response_length, int code)> callback;
};

struct State {
  std::mutex lock;
  std::condition_variable callback_ended;
  std::vector<Call> calls;
  std::vector<std::unique_ptr<qmi_client_struct>> handles;
  std::deque<PendingSend> pending;
  qmi_client_type last_connection = nullptr;
  qmi_client_type last_notifier = nullptr;
  int attempts = 0;
};
State& g_state = kNewObject;

std::atomic<Framework> g_framework{Framework::kLinux};

// The handles whose callbacks this thread is in, the innermost last.
thread_local std::vector<qmi_client_type> t_calling_back;

int own_callbacks(qmi_client_type handle) {
  return static_cast<int>(std::count(t_calling_back.begin(), t_calling_back.end(), handle));
}

void record(const Call& call) {
  Guard guard(g_state.lock);
  g_state.calls.push_back(call);
}

// Whether a call that the framework refuses on a released handle may go on. The phone's framework takes nothing in for
// a handle while a callback of it runs.
bool takes(const Call& call, bool blocks) {
  record(call);
  if (call.handle == nullptr || !is_open(call.handle)) return false;
  const bool hangs = blocks && g_framework == Framework::kPhone && own_callbacks(call.handle) > 0;
  EXPECT_FALSE(hangs) << call.name << " inside a callback of its handle: it does not return on the phone";
  return true;
}

// Runs a callback of a handle, without the lock.
template <typename Run>
void run_callback(Guard& guard, qmi_client_type handle, Run run) {
  ++handle->running_callbacks;
  guard.unlock();
  t_calling_back.push_back(handle);
  run();
  t_calling_back.pop_back();
  guard.lock();
  --handle->running_callbacks;
  g_state.callback_ended.notify_all();
}

template <typename Callback, typename... Arguments>
bool call_back(qmi_client_type handle, Callback qmi_client_struct::*callback, const Arguments&... arguments) {
  Guard guard(g_state.lock);
  const Callback function = handle->*callback;
  if (!handle->is_open || !function) return false;
  run_callback(guard, handle, [&] { function(arguments...); });
  return true;
}

// The phone's framework ends what is pending with the callback of each, on this thread.
void end_pending(Guard& guard, qmi_client_type handle, int code) {
  auto& pending = g_state.pending;
  while (g_framework == Framework::kPhone) {
    const auto found = std::find_if(pending.begin(), pending.end(), [&](auto& send) { return send.handle == handle; });
    if (found == pending.end()) return;
    const PendingSend send = *found;
    pending.erase(found);
    run_callback(guard, handle, [&] { send.callback(0, code); });
  }
}

qmi_client_type new_handle(qmi_idl_service_object_type service, qmi_client_type& last) {
  Guard guard(g_state.lock);
  g_state.handles.push_back(std::make_unique<qmi_client_struct>());
  last = g_state.handles.back().get();
  last->service = service;
  return last;
}

Bytes bytes_of(const void* data, size_t length) {
  const auto* const bytes = static_cast<const uint8_t*>(data);
  return bytes == nullptr ? Bytes() : Bytes(bytes, bytes + length);
}

void fill_response(void* response, size_t length, const Bytes& bytes) {
  if (response == nullptr) return;
  std::memset(response, 0, length);
  std::copy_n(bytes.begin(), std::min(length, bytes.size()), static_cast<uint8_t*>(response));
}

}  // namespace

std::vector<Call> calls() {
  Guard guard(g_state.lock);
  return g_state.calls;
}

Lines call_names() {
  Lines names;
  for (const Call& call : calls()) names.push_back(call.name);
  return names;
}

void clear_calls() {
  Guard guard(g_state.lock);
  g_state.calls.clear();
}

qmi_client_type last_connection() {
  Guard guard(g_state.lock);
  return g_state.last_connection;
}

qmi_client_type last_notifier() {
  Guard guard(g_state.lock);
  return g_state.last_notifier;
}

bool is_open(qmi_client_type handle) {
  Guard guard(g_state.lock);
  return handle->is_open;
}

size_t open_handles() {
  Guard guard(g_state.lock);
  const auto& handles = g_state.handles;
  return static_cast<size_t>(
      std::count_if(handles.begin(), handles.end(), [](const auto& handle) { return handle->is_open; }));
}

bool indicate(qmi_client_type handle, unsigned msg_id, const Bytes& wire) {
  return call_back(handle, &qmi_client_struct::indication, msg_id, wire);
}

bool lose_service(qmi_client_type handle) {
  Guard guard(g_state.lock);
  end_pending(guard, handle, QMI_SERVICE_ERR);
  guard.unlock();
  return call_back(handle, &qmi_client_struct::error, int{QMI_SERVICE_ERR});
}

bool announce_service(qmi_client_type notifier, qmi_client_notify_event_type event) {
  return call_back(notifier, &qmi_client_struct::notify, event);
}

void complete_send(const Bytes& response, int code) {
  Guard guard(g_state.lock);
  const PendingSend send = g_state.pending.front();
  g_state.pending.pop_front();
  fill_response(send.response, send.response_length, response);
  run_callback(guard, send.handle, [&] { send.callback(send.response_length, code); });
}

void set_framework(Framework framework) {
  g_framework = framework;
}

}  // namespace scripted

using namespace scripted;

extern "C" {

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service, qmi_service_instance instance,
                                               qmi_client_ind_cb ind_cb, void* ind_data, qmi_client_os_params*,
                                               uint32_t timeout, qmi_client_type* handle) {
  record({.name = "init_instance", .msg_id = instance, .timeout = timeout});
  Guard guard(g_state.lock);
  const int attempt = g_state.attempts++;
  guard.unlock();
  const int code = service == nullptr ? QMI_CLIENT_PARAM_ERR : on_init_instance ? on_init_instance(attempt) : 0;
  if (code != 0) return code;
  const qmi_client_type made = *handle = new_handle(service, g_state.last_connection);
  made->indication = [=](unsigned msg_id, Bytes wire) {
    ind_cb(made, msg_id, wire.data(), static_cast<unsigned>(wire.size()), ind_data);
  };
  return 0;
}

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service, qmi_client_os_params*,
                                               qmi_client_type* handle) {
  record({.name = "notifier_init"});
  if (notifier_init_result == 0) *handle = new_handle(service, g_state.last_notifier);
  return notifier_init_result;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type handle, qmi_client_error_cb callback, void* data) {
  const Call call{.name = "register_error_cb", .handle = handle};
  record(call);
  Guard guard(g_state.lock);
  handle->error = [=](int error) { callback(handle, error, data); };
  guard.unlock();
  if (on_registered) on_registered(call);
  return 0;
}

qmi_client_error_type qmi_client_register_notify_cb(qmi_client_type handle, qmi_client_notify_cb callback, void* data) {
  const Call call{.name = "register_notify_cb", .handle = handle};
  record(call);
  if (register_notify_result != 0) return register_notify_result;
  Guard guard(g_state.lock);
  handle->notify = [=](qmi_client_notify_event_type event) { callback(handle, handle->service, event, data); };
  guard.unlock();
  if (on_registered) on_registered(call);
  return 0;
}

qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type handle, unsigned msg_id, void* request,
                                               unsigned request_length, void* response, unsigned response_length,
                                               unsigned timeout) {
  const Call call{"send_msg_sync", handle, msg_id, bytes_of(request, request_length), response_length, timeout};
  if (!takes(call, true)) return QMI_CLIENT_INVALID_CLNT;
  const Outcome outcome = on_send ? on_send(call) : Outcome{};
  if (outcome.code == 0 || !outcome.response.empty()) fill_response(response, response_length, outcome.response);
  return outcome.code;
}

qmi_client_error_type qmi_client_send_msg_async(qmi_client_type handle, unsigned msg_id, void* request,
                                                unsigned request_length, void* response, unsigned response_length,
                                                qmi_client_recv_msg_async_cb callback, void* data,
                                                qmi_txn_handle* transaction) {
  const Call call{"send_msg_async", handle, msg_id, bytes_of(request, request_length), response_length};
  if (!takes(call, false)) return QMI_CLIENT_INVALID_CLNT;
  *transaction = nullptr;
  const int code = on_send_async ? on_send_async(call) : 0;
  const auto end = [=](unsigned length, int error) { callback(handle, msg_id, response, length, data, error); };
  Guard guard(g_state.lock);
  if (code == 0) g_state.pending.push_back({handle, response, response_length, end});
  return code;
}

qmi_client_error_type qmi_client_message_decode(qmi_client_type handle, qmi_idl_type_of_message_type type,
                                                unsigned msg_id, const void* bytes, unsigned length, void* structure,
                                                unsigned structure_length) {
  if (handle == nullptr) return QMI_CLIENT_INVALID_CLNT;
  if (on_decode) return on_decode(msg_id, static_cast<uint8_t*>(structure), structure_length);
  return pelmar::qmi::decode(handle->service, type, static_cast<uint16_t>(msg_id), static_cast<const uint8_t*>(bytes),
                             length, structure, structure_length);
}

qmi_client_error_type qmi_client_release(qmi_client_type handle) {
  if (!takes({.name = "release", .handle = handle}, true)) return QMI_CLIENT_INVALID_CLNT;
  Guard guard(g_state.lock);
  handle->is_open = false;
  end_pending(guard, handle, QMI_INTERNAL_ERR);
  const int own = own_callbacks(handle);
  g_state.callback_ended.wait(guard, [&] { return handle->running_callbacks <= own; });
  return 0;
}
}
