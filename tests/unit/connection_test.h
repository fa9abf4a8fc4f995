// What tests of the service connections share: the four are one engine with four descriptions.
#pragma once

#include "golden_log.h"
#include "nas_client.h"
#include "sar_client.h"
#include "vs_client.h"

namespace scripted {

using Statuses = std::vector<uint32_t>;

struct Connection {
  std::string name;
  modem_api_client_type type;
  qmi_idl_service_object_type& service_object;
  qmi_client_type& handle;
  uint8_t& connected;
  bool (*is_clear)();
  void (*init)();
  bool (*open)(modem_api_event_cb);
  bool (*release)();
  void (*set_status_callback)(modem_api_operational_status_fn);
  decltype(&vs_client_send_msg_sync) send;
  decltype(&vs_client_send_msg_async) send_async;
  qmi_client_error_cb service_down;

  // Of those that come back by themselves; null for the VS connection.
  qmi_client_type* notifier = nullptr;
  bool (*attempt)() = nullptr;
  void* (*release_thread)(void*) = nullptr;
};

template <auto& context>
bool is_clear() {
  return is_zero(context);
}
template <auto init>
void prepare() {
  init();
}

#define CONNECTION(prefix, type, ...)                                                                                 \
  Connection {                                                                                                        \
    "" #prefix "_client", type, prefix##_client_info.service_object, prefix##_client_info.client_handle,              \
        prefix##_client_info.connected, is_clear<prefix##_client_info>, prepare<prefix##_init>, prefix##_client_init, \
        prefix##_client_release, prefix##_client_set_operational_status_callback, prefix##_client_send_msg_sync,      \
        prefix##_client_send_msg_async, prefix##_client_service_down_event, __VA_ARGS__                               \
  }
#define RECONNECTING(prefix, type)                                                                     \
  CONNECTION(prefix, type, &prefix##_client_info.notifier_handle, prefix##_client_init_client_handles, \
             prefix##_client_release_qmi_client_thread)

inline const Connection kConnections[] = {
    CONNECTION(vs, MODEM_API_CLIENT_VS, nullptr), RECONNECTING(sar, MODEM_API_CLIENT_SAR),
    RECONNECTING(nas_0, MODEM_API_CLIENT_NAS_0), RECONNECTING(nas_1, MODEM_API_CLIENT_NAS_1)};

#undef RECONNECTING
#undef CONNECTION

inline void PrintTo(const Connection& connection, std::ostream* out) {
  *out << connection.name;
}

// What was reported, and what to do about it. Never destroyed: detached threads may outlive main().
struct Reports {
  std::mutex lock;
  Statuses of[MODEM_API_CLIENT_TYPES];
  std::function<void(uint32_t)> react;
};
inline Reports& reports = kNewObject;

inline void on_status(uint32_t type, uint32_t status) {
  {
    std::lock_guard<std::mutex> guard(reports.lock);
    reports.of[type].push_back(status);
  }
  if (reports.react) reports.react(status);
}

inline Statuses statuses_of(const Connection& connection) {
  std::lock_guard<std::mutex> guard(reports.lock);
  return reports.of[connection.type];
}

// A script of register_notify_cb: the service is there already.
inline Outcome announce_at_registration(const Call& call) {
  announce_service(call.handle);
  return 0;
}

class ConnectionTest : public LibraryTest, public testing::WithParamInterface<Connection> {
 protected:
  ConnectionTest() { start(); }

  const Connection& connection_ = GetParam();

  void start() {
    connection_.init();
    connection_.set_status_callback(on_status);
    forget();
  }
  // The threads that the library creates from here on are held.
  qmi_client_type open() {
    EXPECT_TRUE(connection_.open(on_event));
    forget();
    set_threads(Threads::kHold);
    return connection_.handle;
  }
  void forget() {
    LibraryTest::forget();
    std::lock_guard<std::mutex> guard(reports.lock);
    reports.of[connection_.type].clear();
  }
  Statuses statuses() const { return statuses_of(connection_); }

  // The calls of the connection attempts when so many of them fail; the last gives the handle. Signals interrupt each
  // sleep and the wait for the rest of it once.
  std::vector<Call> attempt_calls(int failures, bool interrupted = false) const {
    std::vector<Call> calls;
    const bool is_nas = connection_.type >= MODEM_API_CLIENT_NAS_0;
    const auto sub = static_cast<uint8_t>(connection_.type - MODEM_API_CLIENT_NAS_0);
    for (int number = 0; number <= std::min(failures, 9); ++number) {
      if (number > 0) calls.push_back({.name = "sleep", .timeout = 1});
      if (number > 0 && interrupted) calls.insert(calls.end(), 2, {.name = "clock_nanosleep", .timeout = 1});
      calls.push_back({.name = "init_instance", .msg_id = 65535, .timeout = 4});
      const qmi_client_type handle = number < failures ? nullptr : connection_.handle;
      if (is_nas) calls.push_back({"send_msg_sync", handle, 0x0045, {sub, 0, 0, 0}, 8, 30000});
    }
    if (failures == 10) return calls;
    if (is_nas) calls.push_back({"send_msg_sync", connection_.handle, 0x0003, structure(175, "4:01"), 8, 30000});
    calls.push_back({.name = "register_error_cb", .handle = connection_.handle});
    return calls;
  }
};

}  // namespace scripted
