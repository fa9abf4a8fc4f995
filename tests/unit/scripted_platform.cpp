// The record of calls; the QMI framework: handles, sends whose outcomes a test sets, and callbacks that a test calls;
// and the process's part: system log, properties, files, sleeps that take no time, threads, and the peripheral manager.
// The codec is the real one.
#include "scripted_platform.h"

#include <cutils/properties.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <memory>

#include "qmi_codec.h"

// One handle of the scripted framework.
struct qmi_client_struct {
  qmi_idl_service_object_type service = nullptr;
  std::function<void(unsigned msg_id, scripted::Bytes wire)> indication;
  std::function<void(int error)> error;
  std::function<void(qmi_client_notify_event_type event)> notify;
  // The ends of asynchronous sends; null: no response.
  std::deque<std::function<void(const scripted::Bytes* response, int code)>> pending;
  bool is_open = true;
  int running_callbacks = 0;
};

namespace scripted {

std::map<std::string, Script>& on_call = kNewObject;
Script& on_send = on_call["send_msg_sync"];
std::function<int(unsigned, uint8_t*, unsigned)>& on_decode = kNewObject;
std::map<std::string, std::string>& properties = kNewObject;
Lines& property_writes = kNewObject;
Transfer on_read;
Transfer on_write;
std::function<void(pm_event)>& announce_power = kNewObject;

namespace {

struct State {
  std::mutex lock;
  std::condition_variable callback_ended;
  std::vector<Call> calls;
  std::vector<std::unique_ptr<qmi_client_struct>> handles;
  std::vector<LogLine> lines;
  ptrdiff_t cleared = 0;                                // the number of lines before clear_log()
  std::deque<std::pair<void* (*)(void*), void*>> held;  // the functions and arguments of held threads
};
State& g_state = kNewObject;

// The library serves processes of this name. The kernel reads it where the arguments are.
[[maybe_unused]] const char* const g_name = std::strcpy(program_invocation_name, "/mtb");

std::string g_suffix;
std::string g_target;
std::atomic<Threads> g_threads{Threads::kRun};
thread_local bool t_runs_held_thread = false;

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

const char* opened_path(const char* path) {
  return !g_suffix.empty() && std::string(path).ends_with(g_suffix) ? g_target.c_str() : path;
}

long transfer_size(const Transfer& transfer, size_t requested) {
  return transfer ? transfer(static_cast<long>(requested)) : static_cast<long>(requested);
}

int call_pm(void* handle, const std::string& name) {
  EXPECT_EQ(handle, &announce_power);
  return play({.name = name}).code;
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

std::vector<LogLine> log_lines(bool since_reset) {
  Guard guard(g_state.lock);
  return {g_state.lines.begin() + (since_reset ? 0 : g_state.cleared), g_state.lines.end()};
}

void clear_log() {
  Guard guard(g_state.lock);
  g_state.cleared = static_cast<ptrdiff_t>(g_state.lines.size());
}

void reset_golden_log() {
  Guard guard(g_state.lock);
  g_state.lines.clear();
  g_state.cleared = 0;
}

Lines log_bodies() {
  Lines bodies;
  for (const auto& [priority, text] : log_lines()) {
    const std::string level = priority == LOG_ERR ? "E" : priority == LOG_DEBUG ? "D" : "?";
    const size_t prefix_end = text.starts_with('[') || text.starts_with("SUB[") ? text.find("] ") : text.npos;
    bodies.push_back(prefix_end != text.npos ? level + text.substr(prefix_end + 1) : level + "|" + text);
  }
  return bodies;
}

bool logged(const std::string& body) {
  const Lines bodies = log_bodies();
  return std::find(bodies.begin(), bodies.end(), body) != bodies.end();
}

void redirect_opens(const std::string& suffix, const std::string& target) {
  g_suffix = suffix;
  g_target = target;
}

std::string file_with(const std::string& content) {
  const int file = memfd_create("scripted", 0);
  EXPECT_EQ(pwrite(file, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  return "/proc/self/fd/" + std::to_string(file);
}

void set_threads(Threads behaviour) {
  g_threads = behaviour;
}

size_t held_threads() {
  Guard guard(g_state.lock);
  return g_state.held.size();
}

// Runs each held function on a new thread, as pthread_create() would.
void run_held() {
  while (held_threads() > 0) {
    Guard guard(g_state.lock);
    const auto [routine, argument] = g_state.held.front();
    g_state.held.pop_front();
    guard.unlock();
    pthread_t id;
    t_runs_held_thread = true;
    pthread_create(&id, nullptr, routine, argument);
    t_runs_held_thread = false;
    pthread_join(id, nullptr);
  }
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

// --- the process ---

void vsyslog(int priority, const char* format, va_list arguments) {
  char text[16384];
  std::vsnprintf(text, sizeof(text), format, arguments);
  Guard guard(g_state.lock);
  g_state.lines.push_back({priority, text});
}

int property_get(const char* name, char* value, const char* default_value) {
  Guard guard(g_state.lock);
  const auto found = properties.find(name);
  const std::string text = found != properties.end() ? found->second : default_value == nullptr ? "" : default_value;
  std::memcpy(value, text.c_str(), text.size() + 1);
  return static_cast<int>(text.size());
}

int property_set(const char* name, const char* value) {
  Guard guard(g_state.lock);
  properties[name] = value;
  property_writes.push_back(std::string(name) + "=" + value);
  return 0;
}

unsigned sleep(unsigned seconds) {
  play({.name = "sleep", .timeout = seconds});
  return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* end, timespec*) {
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
  EXPECT_EQ(flags, TIMER_ABSTIME);
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto seconds = static_cast<unsigned>(end->tv_sec - now.tv_sec + (end->tv_nsec > now.tv_nsec ? 1 : 0));
  return play({.name = "clock_nanosleep", .timeout = seconds}).code;
}

FILE* fopen(const char* path, const char* mode) {
  static const auto real = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"));
  return real(opened_path(path), mode);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
  va_end(arguments);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, opened_path(path), flags, mode));
}

ssize_t read(int file, void* buffer, size_t size) {
  const long allowed = transfer_size(on_read, size);
  return allowed < 0 ? -1 : syscall(SYS_read, file, buffer, allowed);
}

ssize_t write(int file, const void* buffer, size_t size) {
  const long allowed = transfer_size(on_write, size);
  return allowed < 0 ? -1 : syscall(SYS_write, file, buffer, allowed);
}

// A statically linked sanitizer intercepts this function of the C library.
int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) __attribute__((weak));

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument) {
  static const auto create = __interceptor_pthread_create != nullptr
                                 ? &__interceptor_pthread_create
                                 : reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (int state; attributes != nullptr && pthread_attr_getdetachstate(attributes, &state) == 0) {
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
  }
  const Threads behaviour = t_runs_held_thread ? Threads::kRun : g_threads.load();
  if (behaviour == Threads::kRun) return create(thread, attributes, routine, argument);
  if (behaviour == Threads::kFail) return EAGAIN;
  Guard guard(g_state.lock);
  g_state.held.emplace_back(routine, argument);
  *thread = pthread_self();
  return 0;
}

// --- peripheral manager ---

int pm_client_register(pm_client_event_cb callback, void* data, const char* device, const char* client,
                       enum pm_event* state_out, void** handle) {
  const int result = play({.name = std::string("register ") + device + " " + client}).code;
  announce_power = [=](pm_event event) { callback(data, event); };
  *state_out = EVENT_PERIPH_IS_OFFLINE;
  *handle = result == 0 ? &announce_power : nullptr;
  return result;
}

#define PM_CALL(name)                  \
  int pm_client_##name(void* handle) { \
    return call_pm(handle, #name);     \
  }
PM_CALL(connect)
PM_CALL(disconnect)
PM_CALL(unregister)

int pm_client_event_acknowledge(void* handle, enum pm_event event) {
  return call_pm(handle, "event_acknowledge " + std::to_string(event));
}
}
