// What tests of the connections that come back by themselves share: SAR and the two of NAS, which are one design with
// three descriptions.
#pragma once

#include "golden_log.h"
#include "nas_client.h"
#include "sar_client.h"

namespace scripted {

using Statuses = std::vector<uint32_t>;

struct Connection {
  std::string name;
  modem_api_client_type type;
  int sub;  // -1: the SAR connection
  reconnecting_client_context* context;
  void (*init)();
  bool (*open)(modem_api_event_cb);
  bool (*attempt)();
  bool (*release)();
  void (*set_status_callback)(modem_api_operational_status_fn);
  decltype(&sar_client_send_msg_sync) send;
  decltype(&sar_client_send_msg_async) send_async;
  qmi_client_error_cb service_down;
  void* (*release_thread)(void*);
};

#define CONNECTION(prefix, type, sub)                                                                                  \
  {                                                                                                                    \
#prefix "_client", type, sub, &prefix##_client_info, prefix##_init, prefix##_client_init,                          \
        prefix##_client_init_client_handles, prefix##_client_release, prefix##_client_set_operational_status_callback, \
        prefix##_client_send_msg_sync, prefix##_client_send_msg_async, prefix##_client_service_down_event,             \
        prefix##_client_release_qmi_client_thread                                                                      \
  }

inline const Connection kConnections[] = {CONNECTION(sar, MODEM_API_CLIENT_SAR, -1),
                                          CONNECTION(nas_0, MODEM_API_CLIENT_NAS_0, 0),
                                          CONNECTION(nas_1, MODEM_API_CLIENT_NAS_1, 1)};

inline void PrintTo(const Connection& connection, std::ostream* out) {
  *out << connection.name;
}

// What was reported, and what to do about it. Never destroyed: detached threads may outlive main().
struct Reports {
  std::mutex lock;
  Statuses of[MODEM_API_CLIENT_TYPES];
  std::function<void(uint32_t)> react;
};
inline Reports& reports = *new Reports;

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

class ReconnectTest : public testing::TestWithParam<Connection> {
 protected:
  ReconnectTest() {
    properties["persist.hydra.mem_trace"] = "true";
    properties["persist.vendor.radio.adb_log_shell"] = "0";
    start();
  }

  const Connection& connection_ = GetParam();

  void start() {
    connection_.init();
    connection_.set_status_callback(on_status);
    forget();
  }
  qmi_client_type open() {
    EXPECT_TRUE(connection_.open(on_event));
    forget();
    set_threads(Threads::kHold);
    return last_connection();
  }
  void forget() {
    clear_log();
    clear_calls();
    sleeps.clear();
    std::lock_guard<std::mutex> guard(reports.lock);
    reports.of[connection_.type].clear();
  }
  Statuses statuses() const { return statuses_of(connection_); }

  // The calls of the connection attempts when so many of them fail; the last gives the handle.
  std::vector<Call> attempt_calls(int failures, qmi_client_type handle) const {
    std::vector<Call> calls;
    const bool is_nas = connection_.sub >= 0;
    for (int number = 0; number <= std::min(failures, 9); ++number) {
      const bool failed = number < failures;
      calls.push_back({.name = "init_instance", .msg_id = 65535, .timeout = 4});
      const Bytes bind = {static_cast<uint8_t>(connection_.sub), 0, 0, 0};
      if (is_nas) calls.push_back({"send_msg_sync", failed ? nullptr : handle, 0x0045, bind, 8, 30000});
    }
    if (failures == 10) return calls;
    if (is_nas) calls.push_back({"send_msg_sync", handle, 0x0003, structure(175, "4:01"), 8, 30000});
    calls.push_back({.name = "register_error_cb", .handle = handle});
    return calls;
  }
};

#undef CONNECTION

}  // namespace scripted
