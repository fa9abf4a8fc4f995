// The QMI framework: handles, sends that a test answers, and callbacks that a test sets off. The codec is the real one.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <utility>

#include "qmi_codec.h"
#include "scripted_platform.h"
#include "scripted_state.h"

// One handle of the scripted framework.
struct qmi_client_struct {
  qmi_idl_service_object_type service = nullptr;
  qmi_client_ind_cb ind_cb = nullptr;
  void* ind_data = nullptr;
  qmi_client_error_cb error_cb = nullptr;
  void* error_data = nullptr;
  qmi_client_notify_cb notify_cb = nullptr;
  void* notify_data = nullptr;
  bool is_open = true;
  int running_callbacks = 0;
};

namespace scripted {

std::function<Answer(const Call&)>& on_send = kNewObject;
std::function<int(const Call&)>& on_send_async = kNewObject;
std::function<int(int)>& on_init_instance = kNewObject;
std::function<int(unsigned, uint8_t*, unsigned)>& on_decode = kNewObject;
std::function<void(const Call&)>& on_registered = kNewObject;
int notifier_init_result = 0;
int register_notify_result = 0;

namespace {

struct PendingSend {
  qmi_client_type handle;
  unsigned msg_id;
  void* response;
  unsigned response_length;
  qmi_client_recv_msg_async_cb callback;
  void* data;
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

State& state() {
  static State* const instance = new State;
  return *instance;
}

void record(Call call) {
  Guard guard(state().lock);
  state().calls.push_back(std::move(call));
}

std::atomic<Framework> g_framework{Framework::kLinux};

// The handles whose callbacks this thread is in, the innermost last.
thread_local std::vector<qmi_client_type> t_calling_back;

int own_callbacks(qmi_client_type handle) {
  return static_cast<int>(std::count(t_calling_back.begin(), t_calling_back.end(), handle));
}

// The phone's framework takes nothing in for a handle while a callback of it runs.
void expect_outside_callbacks(qmi_client_type handle, const char* what) {
  if (g_framework != Framework::kPhone || own_callbacks(handle) == 0) return;
  ADD_FAILURE() << what << " inside a callback of its handle: it does not return on the phone";
}

// Runs a callback of a handle, without the lock.
template <typename Run>
void run_callback(std::unique_lock<std::mutex>& guard, qmi_client_type handle, Run run) {
  ++handle->running_callbacks;
  guard.unlock();
  t_calling_back.push_back(handle);
  run();
  t_calling_back.pop_back();
  guard.lock();
  --handle->running_callbacks;
  state().callback_ended.notify_all();
}

// Runs a callback of a handle with its data.
template <typename Callback, typename Run>
bool call_back(qmi_client_type handle, Callback qmi_client_struct::*callback, void* qmi_client_struct::*data, Run run) {
  std::unique_lock<std::mutex> guard(state().lock);
  const Callback function = handle->*callback;
  if (!handle->is_open || function == nullptr) return false;
  void* const argument = handle->*data;
  run_callback(guard, handle, [&] { run(function, argument); });
  return true;
}

void end_send(std::unique_lock<std::mutex>& guard, const PendingSend& send, unsigned response_length, int code) {
  run_callback(guard, send.handle,
               [&] { send.callback(send.handle, send.msg_id, send.response, response_length, send.data, code); });
}

// The phone's framework ends what is pending with the callback of each, on this thread.
void end_pending(std::unique_lock<std::mutex>& guard, qmi_client_type handle, int code) {
  const auto is_of_handle = [&](const PendingSend& send) { return send.handle == handle; };
  auto& pending = state().pending;
  while (g_framework == Framework::kPhone) {
    const auto found = std::find_if(pending.begin(), pending.end(), is_of_handle);
    if (found == pending.end()) return;
    const PendingSend send = *found;
    pending.erase(found);
    end_send(guard, send, 0, code);
  }
}

template <typename Callback>
void register_callback(qmi_client_type handle, Callback qmi_client_struct::*callback, Callback function,
                       void* qmi_client_struct::*data, void* argument) {
  Guard guard(state().lock);
  handle->*callback = function;
  handle->*data = argument;
}

qmi_client_type new_handle(qmi_idl_service_object_type service) {
  Guard guard(state().lock);
  state().handles.push_back(std::make_unique<qmi_client_struct>());
  state().handles.back()->service = service;
  return state().handles.back().get();
}

std::vector<uint8_t> bytes_of(const void* data, size_t length) {
  const auto* const bytes = static_cast<const uint8_t*>(data);
  return bytes == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(bytes, bytes + length);
}

void fill_response(void* response, size_t length, const std::vector<uint8_t>& bytes) {
  if (response == nullptr) return;
  std::memset(response, 0, length);
  std::copy_n(bytes.begin(), std::min(length, bytes.size()), static_cast<uint8_t*>(response));
}

}  // namespace

std::vector<Call> calls() {
  Guard guard(state().lock);
  return state().calls;
}

std::vector<Call> calls(const std::string& name) {
  std::vector<Call> selected = calls();
  std::erase_if(selected, [&](const Call& call) { return call.name != name; });
  return selected;
}

void clear_calls() {
  Guard guard(state().lock);
  state().calls.clear();
}

std::vector<std::string> call_names() {
  std::vector<std::string> names;
  for (const Call& call : calls()) names.push_back(call.name);
  return names;
}

std::vector<uint8_t> header(uint32_t result, uint32_t error) {
  const uint32_t words[] = {result, error};
  return bytes_of(words, sizeof(words));
}

qmi_client_type last_connection() {
  Guard guard(state().lock);
  return state().last_connection;
}

qmi_client_type last_notifier() {
  Guard guard(state().lock);
  return state().last_notifier;
}

bool is_open(qmi_client_type handle) {
  Guard guard(state().lock);
  return handle->is_open;
}

size_t open_handles() {
  Guard guard(state().lock);
  return static_cast<size_t>(std::count_if(state().handles.begin(), state().handles.end(),
                                           [](const auto& handle) { return handle->is_open; }));
}

bool indicate(qmi_client_type handle, unsigned msg_id, const std::vector<uint8_t>& wire_bytes) {
  std::vector<uint8_t> bytes = wire_bytes;
  return call_back(handle, &qmi_client_struct::ind_cb, &qmi_client_struct::ind_data, [&](auto function, void* data) {
    function(handle, msg_id, bytes.data(), static_cast<unsigned>(bytes.size()), data);
  });
}

bool lose_service(qmi_client_type handle, int error) {
  {
    std::unique_lock<std::mutex> guard(state().lock);
    end_pending(guard, handle, error);
  }
  return call_back(handle, &qmi_client_struct::error_cb, &qmi_client_struct::error_data,
                   [&](auto function, void* data) { function(handle, error, data); });
}

bool announce_service(qmi_client_type notifier, qmi_client_notify_event_type event) {
  return call_back(notifier, &qmi_client_struct::notify_cb, &qmi_client_struct::notify_data,
                   [&](auto function, void* data) { function(notifier, notifier->service, event, data); });
}

void complete_send(const std::vector<uint8_t>& response, int code) {
  std::unique_lock<std::mutex> guard(state().lock);
  const PendingSend send = state().pending.front();
  state().pending.pop_front();
  fill_response(send.response, send.response_length, response);
  end_send(guard, send, send.response_length, code);
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
  Call call{.name = "init_instance", .msg_id = instance, .timeout = timeout};
  record(call);
  int attempt = 0;
  {
    Guard guard(state().lock);
    attempt = state().attempts++;
  }
  const int code = service == nullptr ? QMI_CLIENT_PARAM_ERR : on_init_instance ? on_init_instance(attempt) : 0;
  if (code != 0) return code;
  *handle = new_handle(service);
  (*handle)->ind_cb = ind_cb;
  (*handle)->ind_data = ind_data;
  Guard guard(state().lock);
  state().last_connection = *handle;
  return 0;
}

qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service, qmi_client_os_params*,
                                               qmi_client_type* handle) {
  record({.name = "notifier_init"});
  if (notifier_init_result != 0) return notifier_init_result;
  *handle = new_handle(service);
  Guard guard(state().lock);
  state().last_notifier = *handle;
  return 0;
}

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type handle, qmi_client_error_cb callback, void* data) {
  const Call call{.name = "register_error_cb", .handle = handle};
  record(call);
  register_callback(handle, &qmi_client_struct::error_cb, callback, &qmi_client_struct::error_data, data);
  if (on_registered) on_registered(call);
  return 0;
}

qmi_client_error_type qmi_client_register_notify_cb(qmi_client_type handle, qmi_client_notify_cb callback, void* data) {
  const Call call{.name = "register_notify_cb", .handle = handle};
  record(call);
  if (register_notify_result != 0) return register_notify_result;
  register_callback(handle, &qmi_client_struct::notify_cb, callback, &qmi_client_struct::notify_data, data);
  if (on_registered) on_registered(call);
  return 0;
}

qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type handle, unsigned msg_id, void* request,
                                               unsigned request_length, void* response, unsigned response_length,
                                               unsigned timeout) {
  const Call call{.name = "send_msg_sync",
                  .handle = handle,
                  .msg_id = msg_id,
                  .request = bytes_of(request, request_length),
                  .response_length = response_length,
                  .timeout = timeout};
  record(call);
  if (handle == nullptr || !is_open(handle)) return QMI_CLIENT_INVALID_CLNT;
  expect_outside_callbacks(handle, "a synchronous send");
  const Answer answer = on_send ? on_send(call) : Answer{};
  if (answer.code == 0 || !answer.response.empty()) fill_response(response, response_length, answer.response);
  return answer.code;
}

qmi_client_error_type qmi_client_send_msg_async(qmi_client_type handle, unsigned msg_id, void* request,
                                                unsigned request_length, void* response, unsigned response_length,
                                                qmi_client_recv_msg_async_cb callback, void* data,
                                                qmi_txn_handle* transaction) {
  const Call call{.name = "send_msg_async",
                  .handle = handle,
                  .msg_id = msg_id,
                  .request = bytes_of(request, request_length),
                  .response_length = response_length};
  record(call);
  if (handle == nullptr || !is_open(handle)) return QMI_CLIENT_INVALID_CLNT;
  const int code = on_send_async ? on_send_async(call) : 0;
  Guard guard(state().lock);
  if (code == 0) state().pending.push_back({handle, msg_id, response, response_length, callback, data});
  *transaction = nullptr;
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
  record({.name = "release", .handle = handle});
  if (handle == nullptr) return QMI_CLIENT_INVALID_CLNT;
  expect_outside_callbacks(handle, "a release");
  std::unique_lock<std::mutex> guard(state().lock);
  handle->is_open = false;
  end_pending(guard, handle, QMI_INTERNAL_ERR);
  const int own = own_callbacks(handle);
  state().callback_ended.wait(guard, [&] { return handle->running_callbacks <= own; });
  return 0;
}
}
