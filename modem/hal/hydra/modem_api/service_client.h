// One engine for the library's connections to the modem's services.
//
// A service client is a description (ServiceClient): the place of its exported context, its entry points, the names in
// its log lines, and its differences from the other clients. The exported functions of each service (vs/, sar/, nas/)
// call the functions below with their description.
//
// Threads. The exported contexts are plain words; any thread reads and writes each of them by itself. A thread that
// connects, prepares or releases a client (a worker) holds the client's worker lock. A release during a reconnection
// thus waits until the reconnection has detected the release and has released the handles that it opened. Callbacks may
// open and free clients: no thread holds the lock while it runs a callback of the library's users or waits for one, and
// a thread inside such a callback does not wait for another callback.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "modem_api.h"
#include "pelmar_log_site.h"
#include "pelmar_thread.h"
#include "qmi_client.h"
#include "sar_client.h"
#include "vs_client.h"

namespace pelmar {

inline constexpr uint32_t kSendTimeoutMs = 30000;

// The fields of an exported context. A client without notifier does not reconnect.
struct ContextFields {
  qmi_idl_service_object_type* service_object;
  qmi_client_type* client_handle;
  qmi_client_os_params* os_params;
  qmi_client_type* notifier_handle;
  qmi_client_recv_msg_async_cb* response_cb;
  modem_api_event_cb* event_cb;
  modem_api_operational_status_fn* status_cb;
  uint8_t* connected;
};

template <typename Context>
constexpr ContextFields fields_of(Context& context) {
  qmi_client_type* notifier = nullptr;
  if constexpr (requires { context.notifier_handle; }) notifier = &context.notifier_handle;
  return {&context.service_object, &context.client_handle, &context.os_params, notifier,
          &context.response_cb,    &context.event_cb,      &context.status_cb, &context.connected};
}

// The framework's callbacks and the detached threads; null for those that a client does not have.
struct EntryPoints {
  qmi_client_recv_msg_async_cb command;
  qmi_client_ind_cb indication;
  qmi_client_error_cb service_down;
  qmi_client_notify_cb service_up = nullptr;
  void* (*release_thread)(void*) = nullptr;
  void* (*resume_thread)(void*) = nullptr;
};

// The place that the log lines of a client's steps carry: the step's name and the client's source. A place without a
// function: the client does not have the step.
struct Places {
  log::Place master_port = {};
  log::Place init_handles = {};  // none: the attempts belong to init
  log::Place suspend = {};
  log::Place resume = {};
  log::Place ind_hdlr = {};
};

// How a client handles an indication, and its error texts.
struct IndicationRules {
  const char* no_event_callback;
  const char* no_memory;
  bool needs_size;  // whether an indication without a size is an error; else it is handled without decoding
  // Delivers a decoded indication. False: it is unknown. Null: every indication is unknown.
  bool (*deliver)(uint32_t msg_id, const void* decoded, modem_api_event_cb event_cb);
};

// Every indication is decoded, logged as unknown and dropped.
inline constexpr IndicationRules kDropsIndications = {.no_event_callback = "Unexpected NULL pointer!",
                                                      .no_memory = "Unexpected NULL pointer!",
                                                      .needs_size = false,
                                                      .deliver = nullptr};

struct ServiceClientState;

struct ServiceClient {
  modem_api_client_type type;
  ContextFields context;
  EntryPoints entry;
  Places places;
  IndicationRules indications = kDropsIndications;
  bool logs_first_try = true;
  qmi_idl_service_object_type (*service_object)();
  void (*after_attempt)(qmi_client_type handle) = nullptr;  // after every attempt, even a failed one
  int32_t (*before_error_callback)() = nullptr;             // after a connection, before the error callback is set
  ServiceClientState& state;
};

// The engine's state of a client, besides its exported context.
struct ServiceClientState {
  // Whether a thread connects the client, and whether the service went down before it was reported up. That loss is
  // handled after the report, so that statuses arrive in order.
  enum class Phase : uint8_t { kSteady, kConnecting, kLostWhileConnecting };

  pthread_mutex_t worker = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
  pthread_cond_t relocked = PTHREAD_COND_INITIALIZER;
  uint32_t unlocked_workers = 0;  // workers that released the lock for a callback; guarded by the lock

  // A worker of an older generation stops. A preparation or release increments it when it begins, to cancel running
  // workers, and again under the lock, so that the last caller wins.
  std::atomic<uint32_t> generation{1};
  std::atomic<uint32_t> prepared{1};  // the generation of the last preparation; if older, the client is released
  std::atomic<Phase> phase{Phase::kSteady};
  std::atomic<uint32_t> resuming{0};  // the generation whose resume thread was started and has not run yet; 0: none
};

// Holds a client's worker lock.
class WorkerLock {
 public:
  explicit WorkerLock(ServiceClientState& state) : state_(state) { pthread_mutex_lock(&state_.worker); }
  ~WorkerLock() { pthread_mutex_unlock(&state_.worker); }
  WorkerLock(const WorkerLock&) = delete;
  WorkerLock& operator=(const WorkerLock&) = delete;

  // Waits until every worker holds the lock again or has ended. Inside a callback it does not wait, because the other
  // callback may wait for this thread.
  void wait_for_callbacks();

 private:
  ServiceClientState& state_;
};

// Releases a worker lock that this thread holds, while the thread runs a callback or waits for one.
class WorkerUnlock {
 public:
  explicit WorkerUnlock(ServiceClientState& state) : state_(state) {
    ++state_.unlocked_workers;
    pthread_mutex_unlock(&state_.worker);
  }
  ~WorkerUnlock() {
    pthread_mutex_lock(&state_.worker);
    --state_.unlocked_workers;
    pthread_cond_broadcast(&state_.relocked);
  }
  WorkerUnlock(const WorkerUnlock&) = delete;
  WorkerUnlock& operator=(const WorkerUnlock&) = delete;

 private:
  ServiceClientState& state_;
};

// Marks this thread as inside a callback that may call the library's users. Callbacks nest: a user may release a
// connection in one, which may call back on the same thread.
class InCallback {
 public:
  // handle: the connection whose indication, response or error callback the framework runs; null for any other
  // callback, because no release of a handle waits for it.
  explicit InCallback(qmi_client_type handle = nullptr) : handle_(handle), outer_(innermost_) { innermost_ = this; }
  ~InCallback() { innermost_ = outer_; }
  InCallback(const InCallback&) = delete;
  InCallback& operator=(const InCallback&) = delete;

  static bool is_now() { return innermost_ != nullptr; }
  // Whether the framework runs a callback of the handle on this thread.
  static bool is_of(qmi_client_type handle);

 private:
  static thread_local constinit const InCallback* innermost_;

  const qmi_client_type handle_;
  const InCallback* const outer_;
};

// Releases a handle, without the worker lock that this thread holds. The release waits for the handle's callbacks.
// Inside one of them it would wait for itself, so it runs on a detached thread then, if one can be started.
void release_handle(ServiceClientState& state, qmi_client_type handle);

// --- connection (service_client.cpp) ---

// Clears the context, stores the response callback and the service object.
void prepare(const ServiceClient& client);
// Makes the ten attempts. They log as an operation of their own if the client has one, else at `here`. True if the
// client is connected. REQUIRES: the worker lock is held.
bool connect_handles(const ServiceClient& client, const log::Place& here);
// The same as an operation by itself, which takes the lock and reports only a service that went down meanwhile.
bool connect_silently(const ServiceClient& client);
// Opens the client on the caller's thread, with its own log lines. True if the client is up.
bool open(const ServiceClient& client, const log::Place& here, modem_api_event_cb event_cb);
void release(const ServiceClient& client);
void set_status_callback(const ServiceClient& client, modem_api_operational_status_fn callback);
void report(const ServiceClient& client, operational_status status);

int32_t send_sync(const ServiceClient& client, uint32_t msg_id, void* request, uint32_t request_length, void* response,
                  uint32_t response_length);
int32_t send_async(const ServiceClient& client, uint32_t msg_id, void* request, uint32_t request_length, void* response,
                   uint32_t response_length, void* callback_data);

// Marks the last connection attempt as reported, and handles a service that went down meanwhile.
void finish_connecting(const ServiceClient& client);
// Whether the client was released or prepared since `generation`.
bool is_stale(const ServiceClient& client, uint32_t generation);

// --- reconnection (service_client_reconnect.cpp) ---

void suspend(const ServiceClient& client);
void handle_service_down(const ServiceClient& client, const log::Place& here, qmi_client_type handle, int32_t error);
void handle_service_up(const ServiceClient& client, qmi_client_notify_event_type event);
void release_after_service_down(const ServiceClient& client, const log::Place& here, void* generation);
void resume_after_service_up(const ServiceClient& client, void* generation);

// --- responses and indications ---

// Passes the end of an asynchronous exchange to modem_api_process_response().
void handle_response(qmi_client_type handle, uint32_t msg_id, void* response, uint32_t response_length,
                     void* callback_data, int32_t transport_error);
void handle_indication(const ServiceClient& client, const log::Place& here, qmi_client_type handle, uint32_t msg_id,
                       const void* buffer, uint32_t length);

}  // namespace pelmar
