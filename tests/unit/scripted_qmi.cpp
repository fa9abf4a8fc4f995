// The record of calls, and the QMI framework: handles, sends whose outcomes a test sets, and callbacks that a test
// calls. The codec is the real one.
#include <gtest/gtest.h>

#include <algorithm>
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
  std::deque<std::function<void(const scripted::Bytes* response, int code)>>
      pending;  // asynchronous; null: no response
  bool is_open = true;
  int running_callbacks = 0;
};

namespace scripted {

std::map<std::string, Script>& on_call = kNewObject;
Script& on_send = on_call["send_msg_sync"];
std::function<int(unsigned, uint8_t*, unsigned)>& on_decode = kNewObject;

namespace {

struct State {
  std::mutex lock;
  std::condition_variable callback_ended;
  std::vector<Call> calls;
  std::vector<std::unique_ptr<qmi_client_struct>> handles;
};
State& g_state = kNewObject;

// The handles whose callbacks this thread is in, the innermost last.
thread_local std::vector<qmi_client_type> t_calling_back;

int own_callbacks(qmi_client_type handle) {
  return static_cast<int>(std::count(t_calling_back.begin(), t_calling_back.end(), handle));
}

// Returns the outcome of a call on a handle. A null or released handle is refused.
Outcome play_on_handle(const Call& call) {
  const bool blocks = call.name != "send_msg_async";
  EXPECT_FALSE(blocks && own_callbacks(call.handle) > 0)
      << call.name << " inside a callback of its handle does not return on the phone";
  const Outcome outcome = play(call);
  return call.handle != nullptr && is_open(call.handle) ? outcome : QMI_CLIENT_INVALID_CLNT;
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

void end_oldest(Guard& guard, qmi_client_type handle, const Bytes* response, int code) {
  const auto end = handle->pending.front();
  handle->pending.pop_front();
  run_callback(guard, handle, [&] { end(response, code); });
}

void end_pending(Guard& guard, qmi_client_type handle, int code) {
  while (!handle->pending.empty()) end_oldest(guard, handle, nullptr, code);
}

qmi_client_type new_handle(qmi_idl_service_object_type service) {
  Guard guard(g_state.lock);
  const qmi_client_type handle = g_state.handles.emplace_back(std::make_unique<qmi_client_struct>()).get();
  handle->service = service;
  return handle;
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

Script returns(int code) {
  return [code](const Call&) { return Outcome(code); };
}

Outcome play(const Call& call) {
  Guard guard(g_state.lock);
  g_state.calls.push_back(call);
  const Script script = on_call[call.name.substr(0, call.name.find(' '))];
  guard.unlock();
  return script ? script(call) : Outcome();
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

void complete_send(qmi_client_type handle, const Bytes& response, int code) {
  Guard guard(g_state.lock);
  end_oldest(guard, handle, &response, code);
}

}  // namespace scripted

using namespace scripted;

extern "C" {

qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service, qmi_service_instance instance,
                                               qmi_client_ind_cb ind_cb, void* ind_data, qmi_client_os_params*,
                                               uint32_t timeout, qmi_client_type* handle) {
  const Outcome outcome = play({.name = "init_instance", .msg_id = instance, .timeout = timeout});
  if (service == nullptr) return QMI_CLIENT_PARAM_ERR;
  if (outcome.code != 0) return outcome.code;
  const qmi_client_type made = *handle = new_handle(service);
  made->indication = [=](unsigned msg_id, Bytes wire) {
    ind_cb(made, msg_id, wire.data(), static_cast<unsigned>(wire.size()), ind_data);
  };
  return 0;
}

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service, qmi_client_os_params*,
                                               qmi_client_type* handle) {
  const int code = play({.name = "notifier_init"}).code;
  if (code == 0) *handle = new_handle(service);
  return code;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type handle, qmi_client_error_cb callback, void* data) {
  Guard guard(g_state.lock);
  handle->error = [=](int error) { callback(handle, error, data); };
  guard.unlock();
  return play({.name = "register_error_cb", .handle = handle}).code;
}

qmi_client_error_type qmi_client_register_notify_cb(qmi_client_type handle, qmi_client_notify_cb callback, void* data) {
  Guard guard(g_state.lock);
  handle->notify = [=](qmi_client_notify_event_type event) { callback(handle, handle->service, event, data); };
  guard.unlock();
  return play({.name = "register_notify_cb", .handle = handle}).code;
}

qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type handle, unsigned msg_id, void* request,
                                               unsigned request_length, void* response, unsigned response_length,
                                               unsigned timeout) {
  const Outcome outcome =
      play_on_handle({"send_msg_sync", handle, msg_id, bytes_of(request, request_length), response_length, timeout});
  if (outcome.code == 0 || !outcome.response.empty()) fill_response(response, response_length, outcome.response);
  return outcome.code;
}

qmi_client_error_type qmi_client_send_msg_async(qmi_client_type handle, unsigned msg_id, void* request,
                                                unsigned request_length, void* response, unsigned response_length,
                                                qmi_client_recv_msg_async_cb callback, void* data,
                                                qmi_txn_handle* transaction) {
  *transaction = nullptr;
  const Outcome outcome =
      play_on_handle({"send_msg_async", handle, msg_id, bytes_of(request, request_length), response_length});
  if (outcome.code != 0) return fill_response(response, response_length, outcome.response), outcome.code;
  Guard guard(g_state.lock);
  handle->pending.push_back([=](const Bytes* content, int error) {
    if (content != nullptr) fill_response(response, response_length, *content);
    callback(handle, msg_id, response, content != nullptr ? response_length : 0, data, error);
  });
  return 0;
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
  const int code = play_on_handle({.name = "release", .handle = handle}).code;
  if (code != 0) return code;
  Guard guard(g_state.lock);
  handle->is_open = false;
  end_pending(guard, handle, QMI_INTERNAL_ERR);
  const int own = own_callbacks(handle);
  g_state.callback_ended.wait(guard, [&] { return handle->running_callbacks <= own; });
  return 0;
}
}
