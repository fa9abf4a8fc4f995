// Reconnects a client after the loss of its service.
//
//   service down  -> report DOWN; release thread: drop the dead handle, report RELEASED, wait with a notifier
//   service up    -> report RECONNECTING; resume thread: drop the notifier, connect, report UP or RECONNECT_FAILED
//
// Both threads are detached. Their argument is the generation in which they were started, or null for the present one;
// they do nothing if the client was released since. A released client ignores late callbacks of a handle that is not
// released yet, or of a dropped notifier.
//
// Every service-down call counts as a loss, whatever its handle. While the client waits for its service, another call
// reports DOWN and RELEASED again and registers with the present notifier; while the connection is up, it drops that
// connection, and the client reconnects.
#include "pelmar_log_site.h"
#include "service_client.h"

namespace pelmar {
namespace {

using Phase = ServiceClientState::Phase;

bool start_worker(void* (*routine)(void*), uint32_t generation) {
  return start_detached(routine, reinterpret_cast<void*>(static_cast<uintptr_t>(generation))) == 0;
}

bool is_present(const ServiceClient& client, void* generation) {
  return generation == nullptr || !is_stale(client, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(generation)));
}

void wait_for_service(const ServiceClient& client, const log::Place& here) {
  qmi_client_type notifier = load(*client.context.notifier_handle);
  if (notifier == nullptr) {
    const int code =
        qmi_client_notifier_init(load(*client.context.service_object), client.context.os_params, &notifier);
    PELMAR_LOG_DEBUG_AT(here, "qmi_client_notifier_init return %d", code);
    if (code != QMI_NO_ERR) return;
    store(*client.context.notifier_handle, notifier);
  }
  // Compatibility: the code is logged at error level, a success included.
  const int code = qmi_client_register_notify_cb(notifier, client.entry.service_up, nullptr);
  PELMAR_LOG_ERROR_AT(here, "qmi_client_register_notify_cb %d", code);
}

}  // namespace

void suspend(const ServiceClient& client) {
  const uint32_t generation = client.state.prepared.load();
  if (client.context.notifier_handle == nullptr || is_stale(client, generation)) return;
  Operation operation(client.places.suspend);
  report(client, OPERATIONAL_STATUS_DOWN);
  if (!start_worker(client.entry.release_thread, generation)) report(client, OPERATIONAL_STATUS_IDLE);
}

void handle_service_down(const ServiceClient& client, const log::Place& here, qmi_client_type handle, int32_t error) {
  PELMAR_LOG_ERROR_AT(here, "service down with error %d", error);
  const InCallback in_callback(handle);
  Phase phase = Phase::kConnecting;
  if (client.state.phase.compare_exchange_strong(phase, Phase::kLostWhileConnecting)) return;
  suspend(client);
}

void release_after_service_down(const ServiceClient& client, const log::Place& here, void* generation) {
  WorkerLock lock(client.state);
  if (!is_present(client, generation)) return;
  store(*client.context.connected, uint8_t{0});
  const qmi_client_type handle = exchange(*client.context.client_handle, qmi_client_type{});
  if (handle != nullptr) release_handle(client.state, handle);
  if (!is_present(client, generation)) return;
  report(client, OPERATIONAL_STATUS_RELEASED);
  if (is_present(client, generation)) wait_for_service(client, here);
}

void handle_service_up(const ServiceClient& client, qmi_client_notify_event_type event) {
  const uint32_t generation = client.state.prepared.load();
  if (event != QMI_CLIENT_SERVICE_COUNT_INC || is_stale(client, generation)) return;
  if (client.state.resuming.exchange(generation) == generation) return;  // its thread was started already
  Operation operation(client.places.resume);
  report(client, OPERATIONAL_STATUS_RECONNECTING);
  if (!start_worker(client.entry.resume_thread, generation)) {
    client.state.resuming.store(0);
    report(client, OPERATIONAL_STATUS_RECONNECT_FAILED);
  }
}

void resume_after_service_up(const ServiceClient& client, void* generation) {
  WorkerLock lock(client.state);
  if (!is_present(client, generation)) return;
  const qmi_client_type notifier = exchange(*client.context.notifier_handle, qmi_client_type{});
  if (notifier != nullptr) qmi_client_release(notifier);
  client.state.resuming.store(0);

  // A notifier that an earlier release dropped may announce the service to a client that has its connection.
  const bool connected =
      load(*client.context.client_handle) != nullptr || connect_handles(client, client.places.init_handles);
  const WorkerUnlock unlock(client.state);
  if (is_present(client, generation)) {
    report(client, connected ? OPERATIONAL_STATUS_UP : OPERATIONAL_STATUS_RECONNECT_FAILED);
  }
  finish_connecting(client);
}

}  // namespace pelmar
