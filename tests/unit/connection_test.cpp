// The four service connections: attempts, exchanges, indications without an event, the loss of a connection and its
// reconnection, and a release at any moment.
#include <cerrno>
#include <future>
#include <thread>

#include "library_test.h"
#include "nas_client.h"
#include "qmi_idl_lib_internal.h"
#include "sar_client.h"
#include "vs_client.h"

namespace {

using namespace scripted;

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

  // For the connections that reconnect by themselves; null for the VS connection.
  qmi_client_type* notifier = nullptr;
  bool (*attempt)() = nullptr;
  void* (*release_thread)(void*) = nullptr;
};

#define CONNECTION(prefix, type, ...)                                                                                  \
  Connection {                                                                                                         \
    "" #prefix "_client", type, prefix##_client_info.service_object, prefix##_client_info.client_handle,               \
        prefix##_client_info.connected, [] { return is_zero(prefix##_client_info); }, [] { prefix##_init(); },         \
        prefix##_client_init, prefix##_client_release, prefix##_client_set_operational_status_callback,                \
        prefix##_client_send_msg_sync, prefix##_client_send_msg_async, prefix##_client_service_down_event, __VA_ARGS__ \
  }
#define RECONNECTING(prefix, type)                                                                     \
  CONNECTION(prefix, type, &prefix##_client_info.notifier_handle, prefix##_client_init_client_handles, \
             prefix##_client_release_qmi_client_thread)

const Connection kConnections[] = {CONNECTION(vs, MODEM_API_CLIENT_VS, nullptr),
                                   RECONNECTING(sar, MODEM_API_CLIENT_SAR), RECONNECTING(nas_0, MODEM_API_CLIENT_NAS_0),
                                   RECONNECTING(nas_1, MODEM_API_CLIENT_NAS_1)};

void PrintTo(const Connection& connection, std::ostream* out) {
  *out << connection.name;
}

// The reported statuses, and a function that runs at each. Never destroyed: detached threads may outlive main().
struct Reports {
  std::mutex lock;
  Statuses statuses;
  std::function<void(uint32_t)> react;
};
Reports& reports = kNewObject;

Statuses statuses() {
  Guard guard(reports.lock);
  return reports.statuses;
}

void on_status(uint32_t, uint32_t status) {
  Guard guard(reports.lock);
  reports.statuses.push_back(status);
  guard.unlock();
  if (reports.react) reports.react(status);
}

class ServiceConnection : public LibraryTest, public testing::WithParamInterface<Connection> {
 protected:
  ServiceConnection() { start(); }

  const Connection& connection_ = GetParam();

  void start() {
    connection_.init();
    connection_.set_status_callback(on_status);
    clear_records();
  }
  // Threads that the library creates after this are held.
  qmi_client_type open() {
    EXPECT_TRUE(connection_.open(on_event));
    clear_records();
    set_threads(Threads::kHold);
    return connection_.handle;
  }
  void clear_records() {
    LibraryTest::clear_records();
    Guard guard(reports.lock);
    reports.statuses.clear();
  }

  // Returns the calls of `failures` failed connection attempts and of one, if any is left, that returns the handle.
  // Signals interrupt each sleep and the wait for its rest once.
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

TEST_P(ServiceConnection, TriesTenTimesAtMost) {
  for (const int failures : {0, 1, 9, 10}) {
    SCOPED_TRACE(failures);
    int attempts = 0, waits = 0;
    on_call["init_instance"] = [&](const Call&) { return attempts++ < failures ? QMI_TIMEOUT_ERR : 0; };
    // A signal that interrupts a pause changes nothing: the rest of the pause follows.
    const bool interrupted = failures >= 9;
    if (interrupted) on_call["sleep"] = [](const Call&) { return errno = EINTR, 0; };
    on_call["clock_nanosleep"] = [&](const Call&) { return ++waits % 2 == 1 ? EINTR : 0; };
    errno = EINTR;  // left by an earlier call
    // A refused binding and a registration without response do not change the result.
    on_send = [](const Call& call) {
      return Outcome(call.msg_id == 3 ? -3 : 0, bytes(call.msg_id == 0x0045 ? "01000000 30000000" : ""));
    };
    const bool up = failures < 10;
    start();
    EXPECT_EQ(connection_.open(on_event), up);
    EXPECT_EQ(statuses(), (Statuses{1, up ? 3U : 2U}));
    EXPECT_EQ(calls(), attempt_calls(failures, interrupted));
    EXPECT_EQ(connection_.handle != nullptr && is_open(connection_.handle), up);
    EXPECT_EQ(connection_.connected, up);
    connection_.release();
  }
}

TEST_P(ServiceConnection, ConnectsAgainOnlyAfterANewStart) {
  EXPECT_TRUE(connection_.release()) << "without a connection";
  EXPECT_THAT(calls(), IsEmpty());
  start();
  const qmi_client_type handle = open();
  on_call["release"] = [this](const Call&) {
    EXPECT_EQ(connection_.connected, 0);
    return 0;
  };
  EXPECT_TRUE(connection_.release());
  EXPECT_EQ(statuses(), Statuses{0});
  EXPECT_THAT(calls(), ElementsAre(Call{.name = "release", .handle = handle}));
  EXPECT_FALSE(is_open(handle));
  EXPECT_TRUE(connection_.is_clear());
  EXPECT_FALSE(connection_.open(on_event));
  start();
  EXPECT_TRUE(connection_.open(on_event));
}

// The callback gets the end of an asynchronous exchange, and both of its blocks are freed. An indication that is no
// event is dropped.
TEST_P(ServiceConnection, EndsExchangesAndDropsIndications) {
  static std::vector<uint32_t> results;
  const modem_api_response_cb callback = [](const uint8_t*, uint32_t, void*, uint32_t result) {
    results.push_back(result);
  };
  Bytes request = {1, 2, 3, 4}, response(8);
  const auto send = [&] { return connection_.send(0x0089, request.data(), 4, response.data(), 8); };
  const auto send_async = [&](void* buffer, void* record) {
    return connection_.send_async(0x0089, request.data(), 4, buffer, 8, record);
  };
  EXPECT_EQ(send(), QMI_CLIENT_INVALID_CLNT);
  EXPECT_EQ(send_async(response.data(), nullptr), QMI_CLIENT_INVALID_CLNT);
  qmi_client_type handle = open();
  on_send = returns(QMI_XPORT_BUSY_ERR);
  EXPECT_EQ(send(), QMI_XPORT_BUSY_ERR);
  for (const int code : {0, int{QMI_TIMEOUT_ERR}}) {
    EXPECT_EQ(send_async(hydra_malloc_adv(8, "test", 0), callback_record(callback, nullptr)), 0);
    complete_send(handle, Bytes(8), code);
    EXPECT_THAT(live_blocks(), IsEmpty());
  }
  EXPECT_THAT(results, ElementsAre(MODEM_API_RESP_END, MODEM_API_ERR_TIMEOUT));
  const Call asynchronous = {"send_msg_async", handle, 0x0089, request, 8};
  EXPECT_THAT(calls(),
              ElementsAre(Call{"send_msg_sync", handle, 0x0089, request, 8, 30000}, asynchronous, asynchronous));

  // A service that has one indication more than the library handles, 0x0777.
  const qmi_idl_service_object_type original = vs_get_service_object_internal_v01(1, 2, 6);
  std::vector<qmi_idl_service_message_table_entry> table(original->msgid_to_msg[QMI_IDL_INDICATION],
                                                         original->msgid_to_msg[QMI_IDL_INDICATION] + 4);
  table.push_back({0x0777, table.back().message_table_message_id, 4});
  qmi_idl_service_object service = *original;
  service.n_msgs[QMI_IDL_INDICATION] = 5;
  service.msgid_to_msg[QMI_IDL_INDICATION] = table.data();
  on_send = nullptr;
  start();
  connection_.service_object = &service;
  handle = open();
  // An identifier without a size, bytes that cannot be decoded, an identifier that the library does not handle.
  for (const auto& [id, wire] : {std::pair{0x0778U, ""}, {0x0204U, "01 0100 B1"}, {0x0777U, "01 0100 B1"}}) {
    EXPECT_TRUE(indicate(handle, id, bytes(wire)));
  }
  start();  // as init() of another client may: it resets the context with its event callback
  EXPECT_TRUE(indicate(handle, 0x0601, bytes("01 0100 B1")));
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(live_blocks(), IsEmpty());
  expect_golden_log();
}

INSTANTIATE_TEST_SUITE_P(, ServiceConnection, testing::ValuesIn(kConnections), testing::PrintToStringParamName());

class Reconnect : public ServiceConnection {
 protected:
  // The library's threads write it meanwhile.
  qmi_client_type notifier() const { return __atomic_load_n(connection_.notifier, __ATOMIC_RELAXED); }
};

TEST_P(Reconnect, ReportsAFailureOfEachStep) {
  // A call of the platform that fails, whether it fails when the service is back (true) or lost, the statuses, and the
  // open handles.
  const std::tuple<std::string, bool, Statuses, size_t> rows[] = {
      {"pthread_create", false, {4, 0}, 1},     {"notifier_init", false, {4, 5}, 0},
      {"register_notify_cb", false, {4, 5}, 1}, {"pthread_create", true, {4, 5, 6, 7, 6, 7}, 1},
      {"init_instance", true, {4, 5, 6, 7}, 0},
  };
  for (const auto& [failing, on_return, wanted, handles] : rows) {
    SCOPED_TRACE(failing);
    start();
    const size_t others = open_handles();
    const qmi_client_type lost = open();
    const auto fail = [&call = failing] {
      if (call == "pthread_create") set_threads(Threads::kFail);
      on_call[call] = returns(-1);
    };
    if (!on_return) fail();
    lose_service(lost);
    run_held();
    if (on_return) {
      fail();
      announce_service(notifier());
      run_held();
      if (notifier() != nullptr) announce_service(notifier());
    }
    EXPECT_EQ(statuses(), wanted);
    EXPECT_EQ(open_handles() - others, handles);
    set_threads(Threads::kRun);
    on_call[failing] = nullptr;
    connection_.release();
  }
  expect_golden_log();
}

// The connection is restored without a call. Every call of the error callback counts as a loss, with any handle, and
// also before the thread of an earlier call has run. An existing notifier is registered again, not created again.
TEST_P(Reconnect, TreatsEveryCallAsALoss) {
  const qmi_client_type lost = open();
  lose_service(lost);
  connection_.service_down(lost, -2, nullptr);
  EXPECT_TRUE(is_open(lost)) << "the callback's thread does not wait";
  run_held();
  EXPECT_EQ(connection_.connected, 0);
  EXPECT_EQ(connection_.send(1, nullptr, 0, nullptr, 0), QMI_CLIENT_INVALID_CLNT);
  clear_calls();
  const qmi_client_type notifier = this->notifier();
  announce_service(notifier, QMI_CLIENT_SERVICE_COUNT_DEC);
  connection_.service_down(lost, -2, nullptr);
  run_held();
  connection_.release_thread(nullptr);
  EXPECT_EQ(statuses(), (Statuses{4, 4, 5, 5, 4, 5, 5}));
  const Call registration = {.name = "register_notify_cb", .handle = notifier};
  EXPECT_THAT(calls(), ElementsAre(registration, registration));
  // A loss and a second announcement before the connecting thread runs: it connects once.
  announce_service(notifier);
  connection_.service_down(nullptr, -2, nullptr);
  announce_service(notifier);
  EXPECT_EQ(held_threads(), 2U);
  clear_records();
  for (const uint32_t first : {3, 4}) {  // the first round has a loss of the connection that was just restored
    run_held();
    clear_calls();
    const qmi_client_type again = this->notifier();
    announce_service(again);
    run_held();
    EXPECT_EQ(statuses(), (Statuses{first, 5, 6, 3}));
    EXPECT_EQ(open_handles(), 1U);
    EXPECT_EQ(this->notifier(), nullptr);
    auto expected_calls = attempt_calls(0);
    expected_calls.insert(expected_calls.begin(), {.name = "release", .handle = again});
    EXPECT_EQ(calls(), expected_calls);
    clear_records();
    connection_.service_down(lost, -2, nullptr);
  }
  // A loss after the release has no effect.
  connection_.release();
  run_held();
  clear_records();
  connection_.service_down(lost, -2, nullptr);
  EXPECT_THAT(statuses(), IsEmpty());
  EXPECT_EQ(held_threads(), 0U);
}

TEST_P(Reconnect, HandlesALossWhileItConnects) {
  int losses = 2;
  on_call["register_notify_cb"] = [](const Call& call) { return announce_service(call.handle) ? 0 : -1; };
  on_call["register_error_cb"] = [&](const Call& call) {
    if (losses-- > 0) lose_service(call.handle);
    return 0;
  };
  set_threads(Threads::kHold);
  EXPECT_TRUE(connection_.open(on_event));
  run_held();
  EXPECT_EQ(statuses(), (Statuses{1, 3, 4, 5, 6, 3, 4, 5, 6, 3}));
  EXPECT_EQ(open_handles(), 1U);
}

// A notifier that a release dropped may connect a client that is initialised but not open; a released client ignores
// it. The thread that an earlier loss started does not change the next connection.
TEST_P(Reconnect, HasOneConnectionAfterALateAnnouncement) {
  lose_service(open());
  run_held();
  const qmi_client_type dropped = notifier();
  connection_.release();
  EXPECT_TRUE(announce_service(dropped));
  EXPECT_EQ(held_threads(), 0U);
  start();
  EXPECT_TRUE(announce_service(dropped));
  run_held();
  EXPECT_EQ(statuses(), (Statuses{6, 3}));
  const qmi_client_type unrequested = connection_.handle;
  const qmi_client_type next = open();
  EXPECT_TRUE(is_open(next));
  EXPECT_FALSE(is_open(unrequested));
  lose_service(next);
  connection_.release();
  start();
  const qmi_client_type last = open();
  run_held();
  EXPECT_TRUE(is_open(last));
  EXPECT_EQ(statuses(), Statuses{});
}

// A release ends a reconnection at any step and releases its handles. No status follows that of the release. A new
// start also ends it. A connection that is up then remains open, but unused.
TEST_P(Reconnect, ReleaseOrStartEndsAReconnectionAtAnyMoment) {
  // The moment of the release (a status or a call of the platform), the statuses, and the open handles: a dropped
  // notifier remains open.
  const struct {
    std::string release_at;
    Statuses wanted;
    size_t left_open;
    bool starts = false;
  } rows[] = {{"4", {4, 0}, 0},          {"release", {4, 0}, 0},          {"5", {4, 5, 0}, 0},
              {"6", {4, 5, 6, 0}, 1},    {"sleep", {4, 5, 6, 0}, 0},      {"connect", {4, 5, 6, 0}, 0},
              {"3", {4, 5, 6, 3, 0}, 0}, {"connect", {4, 5, 6}, 0, true}, {"3", {4, 5, 6, 3}, 1, true}};
  for (const auto& row : rows) {
    for (const bool by_other_thread : {false, true}) {
      // The user's code does not run on the thread that releases a handle.
      if (row.release_at == "release" && !by_other_thread) continue;
      SCOPED_TRACE(testing::Message() << row.release_at << by_other_thread);
      start();
      const size_t others = open_handles();
      const qmi_client_type lost = open();
      std::future<void> other;
      bool released = false;
      const std::string service = connection_.name.substr(0, connection_.name.find("_client"));
      const auto release_at_moment = [&](const std::string& moment) {
        if (moment != row.release_at || std::exchange(released, true)) return 0;
        const auto end = [&] {
          if (row.starts) return connection_.init();
          connection_.release();
        };
        if (!by_other_thread) {
          end();
          return 0;
        }
        set_threads(Threads::kRun);
        other = std::async(std::launch::async, end);
        set_threads(Threads::kHold);
        const std::string function = row.starts ? service + "_init" : connection_.name + "_release";
        while (!logged("D " + function + ": function entry ------------->")) std::this_thread::yield();
        const auto ended = other.wait_for(std::chrono::milliseconds(150));
        // At 4 and 6 no worker runs. At any other moment the worker has the lock, or the other thread waits for it.
        if (moment != "4" && moment != "6") {
          EXPECT_EQ(ended, std::future_status::timeout);
        }
        return 0;
      };
      reports.react = [&](uint32_t status) { release_at_moment(std::to_string(status)); };
      on_call["release"] = on_call["sleep"] = [&](const Call& call) { return release_at_moment(call.name); };
      on_call["init_instance"] = [&](const Call&) {
        EXPECT_FALSE(released) << "no attempt follows the release";
        release_at_moment("connect");
        return row.release_at == "sleep" ? QMI_TIMEOUT_ERR : 0;
      };
      lose_service(lost);
      run_held();
      const qmi_client_type notifier = this->notifier();
      if (notifier != nullptr) announce_service(notifier);
      run_held();
      if (other.valid()) other.get();
      EXPECT_EQ(statuses(), row.wanted);
      EXPECT_EQ(open_handles() - others, row.left_open);
      EXPECT_EQ(connection_.is_clear(), !row.starts);
      reports.react = nullptr;
      on_call["release"] = on_call["sleep"] = on_call["init_instance"] = nullptr;
    }
  }
}

TEST_P(Reconnect, ReleaseDuringAnAttemptLeavesNoConnection) {
  for (const int outcome : {0, int{QMI_TIMEOUT_ERR}}) {
    on_call["init_instance"] = [&](const Call&) {
      connection_.release();
      return outcome;
    };
    start();
    EXPECT_FALSE(connection_.attempt()) << outcome;
    EXPECT_EQ(statuses(), Statuses{0}) << "the attempts alone report nothing";
    start();
    EXPECT_FALSE(connection_.open(on_event)) << outcome;
    EXPECT_EQ(open_handles(), 0U) << outcome;
  }
  on_call["init_instance"] = nullptr;
  start();
  EXPECT_TRUE(connection_.attempt());
  set_threads(Threads::kHold);
  lose_service(connection_.handle);
  EXPECT_EQ(statuses(), Statuses{4}) << "attempts without an open also end with a connection that sees its loss";
}

INSTANTIATE_TEST_SUITE_P(, Reconnect, testing::ValuesIn(kConnections + 1, std::end(kConnections)),
                         testing::PrintToStringParamName());

}  // namespace
