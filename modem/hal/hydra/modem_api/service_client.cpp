// Opens, releases and uses a service connection, and handles the framework's callbacks for it.
//
// Responses and indications come on the framework's callback thread of the connection. An indication is sized, decoded
// into a traced block, delivered and freed.
#include "service_client.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "pelmar_log_site.h"
#include "traced_ptr.h"

namespace pelmar {
namespace {

constexpr int kRetries = 9;
constexpr unsigned kRetryPauseSeconds = 1;
constexpr uint32_t kInitInstanceTimeout = 4;

using Phase = ServiceClientState::Phase;

// Field by field, because other threads may read them.
void clear_context(const ContextFields& context) {
  store(*context.service_object, qmi_idl_service_object_type{});
  store(*context.client_handle, qmi_client_type{});
  std::memset(context.os_params, 0, sizeof(*context.os_params));
  if (context.notifier_handle != nullptr) store(*context.notifier_handle, qmi_client_type{});
  store(*context.response_cb, qmi_client_recv_msg_async_cb{});
  store(*context.event_cb, modem_api_event_cb{});
  store(*context.status_cb, modem_api_operational_status_fn{});
  store(*context.connected, uint8_t{0});
}

int attempt(const ServiceClient& client, qmi_client_type* handle) {
  *handle = nullptr;
  const int code =
      qmi_client_init_instance(load(*client.context.service_object), QMI_CLIENT_INSTANCE_ANY, client.entry.indication,
                               nullptr, client.context.os_params, kInitInstanceTimeout, handle);
  // Compatibility: a NAS client sends its binding after every attempt, before the outcome is tested. After a failed
  // attempt it is sent on a null handle and fails.
  if (client.after_attempt != nullptr) client.after_attempt(*handle);
  return code;
}

// A pause is one call of sleep(). If a signal ends it early, clock_nanosleep() waits for the rest.
void pause_between_attempts() {
  timespec end;
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += kRetryPauseSeconds;
  errno = 0;
  sleep(kRetryPauseSeconds);
  if (errno != EINTR) return;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

bool make_attempts(const ServiceClient& client, const log::Place& here) {
  const uint32_t generation = client.state.generation.load();
  client.state.phase.store(Phase::kConnecting);

  qmi_client_type handle = nullptr;
  int code = QMI_INTERNAL_ERR;
  for (int number = 0; number <= kRetries; ++number) {
    if (number > 0) pause_between_attempts();
    if (is_stale(client, generation)) return false;
    if (number > 0 || client.logs_first_try) {
      PELMAR_LOG_DEBUG_AT(here, "Trying qmi_client_init_instance() try # %d port[%d]", number, QMI_CLIENT_INSTANCE_ANY);
    }
    code = attempt(client, &handle);
    if (code == QMI_NO_ERR) break;
  }
  PELMAR_LOG_DEBUG_AT(here, "qmi_client_init_instance returned (%d)", code);
  if (code != QMI_NO_ERR) {
    PELMAR_LOG_DEBUG_AT(here, "qmi_client_init_instance returned failure(%d)", code);
    return false;
  }
  if (is_stale(client, generation)) {
    release_handle(client.state, handle);
    return false;
  }
  // A notifier that an earlier release dropped may have connected the client without a request.
  const qmi_client_type unrequested = exchange(*client.context.client_handle, handle);
  if (client.before_error_callback != nullptr) client.before_error_callback();
  qmi_client_register_error_cb(handle, client.entry.service_down, nullptr);
  store(*client.context.connected, uint8_t{1});
  if (unrequested != nullptr)
    release_handle(client.state, unrequested);  // last, because another worker may release `handle` meanwhile
  return true;
}

void deliver(const ServiceClient& client, qmi_client_type handle, uint32_t msg_id, const void* decoded,
             modem_api_event_cb event_cb) {
  PELMAR_LOG_DEBUG_AT(client.places.ind_hdlr, "Handling indication msg 0x%x", msg_id);
  const InCallback in_callback(handle);
  const bool known = client.indications.deliver != nullptr && client.indications.deliver(msg_id, decoded, event_cb);
  if (!known) PELMAR_LOG_ERROR_AT(client.places.ind_hdlr, "Unknown indication msg %0x", msg_id);
}

void* release_on_thread(void* handle) {
  qmi_client_release(static_cast<qmi_client_type>(handle));
  return nullptr;
}

}  // namespace

thread_local constinit const InCallback* InCallback::innermost_ = nullptr;

bool InCallback::is_of(qmi_client_type handle) {
  const InCallback* callback = innermost_;
  while (callback != nullptr && callback->handle_ != handle) callback = callback->outer_;
  return callback != nullptr;
}

// No thread may wait for the detached one: it ends after the callback, which may itself wait for another thread.
void release_handle(ServiceClientState& state, qmi_client_type handle) {
  if (InCallback::is_of(handle) && start_detached(release_on_thread, handle) == 0) return;
  const WorkerUnlock unlock(state);
  qmi_client_release(handle);
}

void WorkerLock::wait_for_callbacks() {
  if (InCallback::is_now()) return;
  while (state_.unlocked_workers != 0) pthread_cond_wait(&state_.relocked, &state_.worker);
}

bool is_stale(const ServiceClient& client, uint32_t generation) {
  return client.state.generation.load() != generation;
}

void prepare(const ServiceClient& client) {
  client.state.generation.fetch_add(1);
  WorkerLock lock(client.state);
  lock.wait_for_callbacks();
  clear_context(client.context);
  store(*client.context.response_cb, client.entry.command);
  store(*client.context.service_object, client.service_object());
  client.state.prepared.store(client.state.generation.fetch_add(1) + 1);
}

void set_status_callback(const ServiceClient& client, modem_api_operational_status_fn callback) {
  store(*client.context.status_cb, callback);
}

void report(const ServiceClient& client, operational_status status) {
  const modem_api_operational_status_fn callback = load(*client.context.status_cb);
  const InCallback in_callback;
  if (callback != nullptr) callback(client.type, status);
}

bool connect_handles(const ServiceClient& client, const log::Place& here) {
  if (client.places.init_handles.function == nullptr) return make_attempts(client, here);
  Operation operation(client.places.init_handles);
  return operation.exit(make_attempts(client, operation.here()), operation.here().line);
}

bool connect_silently(const ServiceClient& client) {
  WorkerLock lock(client.state);
  const bool connected = connect_handles(client, client.places.init_handles);
  const WorkerUnlock unlock(client.state);
  finish_connecting(client);
  return connected;
}

void finish_connecting(const ServiceClient& client) {
  const bool lost = client.state.phase.exchange(Phase::kSteady) == Phase::kLostWhileConnecting;
  if (lost && load(*client.context.client_handle) != nullptr) suspend(client);
}

bool open(const ServiceClient& client, const log::Place& here, modem_api_event_cb event_cb) {
  PELMAR_LOG_DEBUG_AT(here, "function entry ------------->");
  WorkerLock lock(client.state);
  store(*client.context.event_cb, event_cb);
  PELMAR_LOG_DEBUG_AT(here, "Client connecting to QMI FW");
  report(client, OPERATIONAL_STATUS_CONNECTING);
  if (client.places.master_port.function != nullptr) {
    PELMAR_LOG_DEBUG_AT(client.places.master_port, "using port %d", QMI_CLIENT_INSTANCE_ANY);
  }
  const bool connected = connect_handles(client, here);
  PELMAR_LOG_DEBUG_AT(here, "function exit, ret(%d)", connected);
  const WorkerUnlock unlock(client.state);
  report(client, connected ? OPERATIONAL_STATUS_UP : OPERATIONAL_STATUS_FAILED);
  finish_connecting(client);
  return connected;
}

void release(const ServiceClient& client) {
  client.state.generation.fetch_add(1);
  WorkerLock lock(client.state);
  lock.wait_for_callbacks();
  const uint32_t generation = client.state.generation.fetch_add(1) + 1;
  report(client, OPERATIONAL_STATUS_IDLE);  // no worker reports any more
  store(*client.context.connected, uint8_t{0});
  const qmi_client_type handle = exchange(*client.context.client_handle, qmi_client_type{});
  if (handle != nullptr) release_handle(client.state, handle);
  // Compatibility: a notifier is dropped without release, and the service object is cleared too, so that an open before
  // the next preparation fails after its ten attempts. We do not clear what a later preparation or release has cleared.
  if (!is_stale(client, generation)) clear_context(client.context);
}

int32_t send_sync(const ServiceClient& client, uint32_t msg_id, void* request, uint32_t request_length, void* response,
                  uint32_t response_length) {
  return qmi_client_send_msg_sync(load(*client.context.client_handle), msg_id, request, request_length, response,
                                  response_length, kSendTimeoutMs);
}

int32_t send_async(const ServiceClient& client, uint32_t msg_id, void* request, uint32_t request_length, void* response,
                   uint32_t response_length, void* callback_data) {
  qmi_txn_handle transaction = nullptr;  // unused, because no request is ever cancelled
  return qmi_client_send_msg_async(load(*client.context.client_handle), msg_id, request, request_length, response,
                                   response_length, load(*client.context.response_cb), callback_data, &transaction);
}

void handle_response(qmi_client_type handle, uint32_t msg_id, void* response, uint32_t response_length,
                     void* callback_data, int32_t transport_error) {
  const InCallback in_callback(handle);
  modem_api_process_response(msg_id, response, response_length, callback_data, transport_error);
}

void handle_indication(const ServiceClient& client, const log::Place& here, qmi_client_type handle, uint32_t msg_id,
                       const void* buffer, uint32_t length) {
  const IndicationRules& rules = client.indications;
  const modem_api_event_cb event_cb = load(*client.context.event_cb);
  if (event_cb == nullptr) {
    PELMAR_LOG_ERROR_AT(here, "%s", rules.no_event_callback);
    return;
  }

  uint32_t size = 0;
  qmi_idl_get_message_c_struct_len(load(*client.context.service_object), QMI_IDL_INDICATION,
                                   static_cast<uint16_t>(msg_id), &size);
  const bool sized = rules.needs_size ? static_cast<int32_t>(size) > 0 : size != 0;
  if (!sized) {
    if (rules.needs_size) {
      PELMAR_LOG_ERROR_AT(here, "decoded_payload_len(%d) can not <= 0", static_cast<int>(size));
    } else {
      deliver(client, handle, msg_id, nullptr, event_cb);
    }
    return;
  }

  const TracedPtr<void> decoded(hydra_malloc_adv(size, here.function, __LINE__));
  if (decoded == nullptr) {
    PELMAR_LOG_ERROR_AT(here, "%s", rules.no_memory);
    return;
  }
  const qmi_client_type stored = load(*client.context.client_handle);  // null until the attempts have ended
  const int code = qmi_client_message_decode(stored != nullptr ? stored : handle, QMI_IDL_INDICATION, msg_id, buffer,
                                             length, decoded.get(), size);
  if (code != QMI_NO_ERR) {
    PELMAR_LOG_ERROR_AT(here, "Indication decode failed for msg 0x%x with error %d", msg_id, code);
    return;
  }
  deliver(client, handle, msg_id, decoded.get(), event_cb);
}

}  // namespace pelmar
