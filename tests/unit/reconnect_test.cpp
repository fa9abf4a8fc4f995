// The connections that come back by themselves: SAR and the two of NAS, which are one design with three descriptions.
#include <atomic>
#include <mutex>
#include <thread>

#include "library_test.h"
#include "nas_client.h"
#include "vs_client.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using Lines = std::vector<std::string>;
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
  qmi_client_ind_cb indication;
  qmi_client_error_cb service_down;
  void* (*release_thread)(void*);
  void* (*resume_thread)(void*);
};

#define CONNECTION(prefix, type, sub)                                                                                  \
  {                                                                                                                    \
#prefix "_client", type, sub, &prefix##_client_info, prefix##_init, prefix##_client_init,                          \
        prefix##_client_init_client_handles, prefix##_client_release, prefix##_client_set_operational_status_callback, \
        prefix##_client_send_msg_sync, prefix##_client_unsol_ind_cb, prefix##_client_service_down_event,               \
        prefix##_client_release_qmi_client_thread, prefix##_client_resume_qmi_client_thread                            \
  }

const Connection kConnections[] = {CONNECTION(sar, MODEM_API_CLIENT_SAR, -1),
                                   CONNECTION(nas_0, MODEM_API_CLIENT_NAS_0, 0),
                                   CONNECTION(nas_1, MODEM_API_CLIENT_NAS_1, 1)};

void PrintTo(const Connection& connection, std::ostream* out) {
  *out << connection.name;
}

// What was reported, and what to do about it. Never destroyed: detached threads may outlive main().
struct Reports {
  std::mutex lock;
  Statuses of[MODEM_API_CLIENT_TYPES];
  std::function<void(uint32_t)> react;
};
Reports& reports = *new Reports;

void on_status(uint32_t type, uint32_t status) {
  {
    std::lock_guard<std::mutex> guard(reports.lock);
    reports.of[type].push_back(status);
  }
  if (reports.react) reports.react(status);
}

Statuses statuses_of(const Connection& connection) {
  std::lock_guard<std::mutex> guard(reports.lock);
  return reports.of[connection.type];
}

class Reconnect : public testing::TestWithParam<Connection> {
 protected:
  Reconnect() {
    properties["persist.hydra.mem_trace"] = "true";
    properties["persist.vendor.radio.adb_log_shell"] = "0";
    start();
  }

  const Connection& connection_ = GetParam();
  const bool is_nas_ = connection_.sub >= 0;

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

  std::string line(const char* function, const std::string& text, char level = 'D') const {
    return level + (" " + connection_.name) + "_" + function + ": " + text;
  }
  std::string entry(const char* function) const { return line(function, "function entry ------------->"); }
  std::string exit(const char* function) const { return line(function, "function exit <-------------"); }

  // What the connection attempts log when so many of them fail.
  Lines attempt_lines(int failures) const {
    Lines lines = {entry("init_client_handles")};
    for (int number = is_nas_ ? 0 : 1; number <= std::min(failures, 9); ++number) {
      const auto text = "Trying qmi_client_init_instance() try # " + std::to_string(number) + " port[65535]";
      lines.push_back(line("init_client_handles", text));
    }
    const bool failed = failures == 10;
    lines.push_back(line("init_client_handles",
                         failed ? "qmi_client_init_instance returned (-3)" : "qmi_client_init_instance returned (0)"));
    if (failed) lines.push_back(line("init_client_handles", "qmi_client_init_instance returned failure(-3)"));
    if (is_nas_ && !failed) {
      lines.insert(lines.end(), {entry("set_networking_indications"),
                                 line("set_networking_indications", "enable_indication result: 0"),
                                 line("set_networking_indications", "function exit, ret(0) <-------------")});
    }
    lines.push_back(line("init_client_handles",
                         failed ? "function exit, ret(0) <-------------" : "function exit, ret(1) <-------------"));
    return lines;
  }

  // The calls of those attempts, the last of which gives the handle.
  std::vector<Call> attempt_calls(int failures, qmi_client_type handle) const {
    std::vector<Call> calls;
    for (int number = 0; number <= std::min(failures, 9); ++number) {
      const bool failed = number < failures;
      calls.push_back({.name = "init_instance", .msg_id = 65535, .timeout = 4});
      const std::vector<uint8_t> bind = {static_cast<uint8_t>(connection_.sub), 0, 0, 0};
      if (is_nas_) calls.push_back({"send_msg_sync", failed ? nullptr : handle, 0x0045, bind, 8, 30000});
    }
    if (failures == 10) return calls;
    if (is_nas_) calls.push_back({"send_msg_sync", handle, 0x0003, structure(175, "4:01"), 8, 30000});
    calls.push_back({.name = "register_error_cb", .handle = handle});
    return calls;
  }
};

TEST_P(Reconnect, TriesTenTimesAtMost) {
  for (int failures : {0, 1, 9, 10}) {
    SCOPED_TRACE(failures);
    int attempts = 0;
    on_init_instance = [&](int) { return attempts++ < failures ? QMI_TIMEOUT_ERR : 0; };
    // A binding that the modem refuses changes nothing.
    on_send = [](const Call& call) { return Answer{0, header(call.msg_id == 0x0045, 48)}; };
    const bool up = failures < 10;
    start();
    EXPECT_EQ(connection_.open(on_event), up);
    EXPECT_EQ(statuses(), (Statuses{1, up ? 3u : 2u}));
    EXPECT_EQ(sleeps, std::vector<unsigned>(std::min<size_t>(failures, 9), 1));
    EXPECT_EQ(calls(), attempt_calls(failures, last_connection()));
    EXPECT_EQ(connection_.context->client_handle, up ? last_connection() : nullptr);
    EXPECT_EQ(connection_.context->connected, up);
    Lines lines = attempt_lines(failures);
    lines.insert(lines.begin(), {entry("init"), line("init", "Client connecting to QMI FW")});
    lines.push_back(line("init", up ? "function exit, ret(1)" : "function exit, ret(0)"));
    EXPECT_EQ(log_bodies(), lines);
    connection_.release();
  }
  // The attempts alone report nothing.
  on_init_instance = [](int) { return QMI_TIMEOUT_ERR; };
  start();
  EXPECT_FALSE(connection_.attempt());
  EXPECT_EQ(log_bodies(), attempt_lines(10));
  EXPECT_EQ(statuses(), Statuses());
}

TEST_P(Reconnect, ComesBackByItself) {
  const qmi_client_type lost = open();
  EXPECT_TRUE(lose_service(lost));
  EXPECT_EQ(statuses(), (Statuses{4}));
  EXPECT_TRUE(is_open(lost));  // the callback's thread is not held up
  run_held();
  EXPECT_EQ(statuses(), (Statuses{4, 5}));
  EXPECT_FALSE(is_open(lost));
  EXPECT_EQ(connection_.context->connected, 0);
  EXPECT_EQ(connection_.send(1, nullptr, 0, nullptr, 0), QMI_CLIENT_INVALID_CLNT);
  const qmi_client_type notifier = last_notifier();
  EXPECT_TRUE(announce_service(notifier, QMI_CLIENT_SERVICE_COUNT_DEC));
  EXPECT_EQ(held_threads(), 0u);
  clear_calls();
  EXPECT_TRUE(announce_service(notifier));
  EXPECT_EQ(statuses(), (Statuses{4, 5, 6}));
  EXPECT_EQ(held_threads(), 1u);
  run_held();
  EXPECT_EQ(statuses(), (Statuses{4, 5, 6, 3}));

  auto expected_calls = attempt_calls(0, last_connection());
  expected_calls.insert(expected_calls.begin(), {.name = "release", .handle = notifier});
  EXPECT_EQ(calls(), expected_calls);
  EXPECT_EQ(open_handles(), 1u);
  EXPECT_EQ(connection_.context->notifier_handle, nullptr);
  EXPECT_EQ(connection_.send(1, nullptr, 0, nullptr, 0), 0);
  Lines lines = {entry("service_down_event"),
                 line("service_down_event", "service down with error -2", 'E'),
                 entry("enter_suspend"),
                 exit("enter_suspend"),
                 exit("service_down_event"),
                 entry("release_qmi_client_thread"),
                 line("release_qmi_client_thread", "qmi_client_notifier_init return 0"),
                 line("release_qmi_client_thread", "qmi_client_register_notify_cb 0", 'E'),
                 exit("release_qmi_client_thread"),
                 entry("send_msg_sync"),
                 line("send_msg_sync", "function exit, ret(-18) <-------------"),
                 entry("service_up_event"),
                 exit("service_up_event"),
                 entry("service_up_event"),
                 entry("enter_resume"),
                 exit("enter_resume"),
                 exit("service_up_event"),
                 entry("resume_qmi_client_thread")};
  for (const auto& text : attempt_lines(0)) lines.push_back(text);
  lines.push_back(exit("resume_qmi_client_thread"));
  auto log = log_bodies();
  log.resize(log.size() - 2);  // the last send
  EXPECT_EQ(log, lines);
}

TEST_P(Reconnect, ReportsWhereItFails) {
  const struct {
    std::function<void()> before_loss, before_return;
    Statuses statuses;
    std::string line;
    size_t open_handles;
  } rows[] = {
      {[] { set_threads(Threads::kFail); }, nullptr, {4, 0}, exit("enter_suspend"), 1},
      {[] { notifier_init_result = -1; },
       nullptr,
       {4, 5},
       line("release_qmi_client_thread", "qmi_client_notifier_init return -1"),
       0},
      {[] { register_notify_result = -2; },
       nullptr,
       {4, 5},
       line("release_qmi_client_thread", "qmi_client_register_notify_cb -2", 'E'),
       1},
      {nullptr, [] { set_threads(Threads::kFail); }, {4, 5, 6, 7}, exit("enter_resume"), 1},
      {nullptr,
       [] { on_init_instance = [](int) { return QMI_TIMEOUT_ERR; }; },
       {4, 5, 6, 7},
       line("init_client_handles", "qmi_client_init_instance returned failure(-3)"),
       0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    start();
    const qmi_client_type lost = open();
    const size_t others = open_handles() - 1;
    if (row.before_loss) row.before_loss();
    lose_service(lost);
    run_held();
    if (row.before_return) {
      row.before_return();
      announce_service(last_notifier());
      run_held();
    }
    EXPECT_EQ(statuses(), row.statuses);
    EXPECT_TRUE(logged(row.line));
    EXPECT_EQ(open_handles() - others, row.open_handles);
    set_threads(Threads::kRun);
    on_init_instance = nullptr;
    notifier_init_result = register_notify_result = 0;
    connection_.release();
  }
}

// A notifier that is held is registered again, and not made again.
TEST_P(Reconnect, KeepsItsNotifier) {
  lose_service(open());
  run_held();
  const qmi_client_type notifier = last_notifier();
  EXPECT_EQ(connection_.context->notifier_handle, notifier);
  connection_.release_thread(nullptr);
  EXPECT_EQ(calls("notifier_init").size(), 1u);
  EXPECT_EQ(calls("register_notify_cb"), std::vector<Call>(2, {.name = "register_notify_cb", .handle = notifier}));
  // A further announcement while the thread is on its way has no effect.
  announce_service(notifier);
  announce_service(notifier);
  run_held();
  EXPECT_EQ(statuses(), (Statuses{4, 5, 5, 6, 3}));
  EXPECT_EQ(open_handles(), 1u);
}

TEST_P(Reconnect, ComesBackToAServiceThatIsThereAlready) {
  on_registered = [](const Call& call) {
    if (call.name == "register_notify_cb") announce_service(call.handle);
  };
  lose_service(open());
  run_held();
  EXPECT_EQ(statuses(), (Statuses{4, 5, 6, 3}));
}

TEST_P(Reconnect, TakesALossDuringTheConnectionAfterIt) {
  int losses = 2;
  on_registered = [&](const Call& call) {
    if (call.name == "register_notify_cb") announce_service(call.handle);
    if (call.name == "register_error_cb" && losses-- > 0) lose_service(call.handle);
  };
  set_threads(Threads::kHold);
  EXPECT_TRUE(connection_.open(on_event));
  run_held();
  EXPECT_EQ(statuses(), (Statuses{1, 3, 4, 5, 6, 3, 4, 5, 6, 3}));
  EXPECT_EQ(open_handles(), 1u);
}

TEST_P(Reconnect, OnlyLogsALossOfADroppedHandle) {
  const qmi_client_type lost = open();
  lose_service(lost);
  run_held();
  for (const Statuses& expected : {Statuses{4, 5}, Statuses{4, 5, 6, 3}}) {
    clear_log();
    connection_.service_down(lost, -2, nullptr);
    EXPECT_THAT(messages(), ElementsAre(line("service_down_event", "service down with error -2", 'E')));
    EXPECT_EQ(statuses(), expected);
    EXPECT_EQ(held_threads(), 0u);
    announce_service(last_notifier());
    run_held();
  }
}

// A release ends a reconnection wherever it is, and what that had made.
TEST_P(Reconnect, EndsWithARelease) {
  enum Place { kSuspending, kResuming, kSleeping, kConnecting, kPlaces };
  for (int place = 0; place < kPlaces; ++place) {
    for (const bool by_other_thread : {false, true}) {
      SCOPED_TRACE(testing::Message() << place << by_other_thread);
      start();
      const qmi_client_type lost = open();
      std::thread other;
      const auto release = [&] {
        if (!by_other_thread) return void(connection_.release());
        set_threads(Threads::kRun);
        other = std::thread([&] { connection_.release(); });
        set_threads(Threads::kHold);
        while (!logged(entry("release"))) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      };
      bool released = false;
      const auto release_once = [&] {
        if (!std::exchange(released, true)) release();
      };
      lose_service(lost);
      if (place == kSuspending) release_once();
      run_held();
      if (place != kSuspending) announce_service(last_notifier());
      if (place == kResuming) release_once();
      if (place == kSleeping) on_sleep = [&](unsigned) { release_once(); };
      on_init_instance = [&](int) {
        if (place == kConnecting) release_once();
        return released ? 0 : QMI_TIMEOUT_ERR;
      };
      run_held();
      if (other.joinable()) other.join();
      EXPECT_EQ(statuses().back(), 0u);
      EXPECT_EQ(statuses().size(), place == kSuspending ? 2u : 4u);
      EXPECT_EQ(open_handles(), place == kResuming ? 1u : 0u);  // a notifier is dropped without release
      const reconnecting_client_context zero = {};
      EXPECT_EQ(std::memcmp(connection_.context, &zero, sizeof(zero)), 0);
      on_sleep = nullptr;
      on_init_instance = nullptr;
      if (place == kResuming) qmi_client_release(last_notifier());
    }
  }
}

TEST_P(Reconnect, MayBeReleasedByItsStatusCallback) {
  for (const uint32_t last : {4u, 5u, 6u, 3u}) {
    SCOPED_TRACE(last);
    start();
    const qmi_client_type lost = open();
    reports.react = [&](uint32_t status) {
      if (status == last) connection_.release();
    };
    lose_service(lost);
    run_held();
    if (last == 6 || last == 3) announce_service(last_notifier());
    run_held();
    EXPECT_EQ(statuses()[statuses().size() - 2], last);
    EXPECT_EQ(statuses().back(), 0u);
    EXPECT_EQ(open_handles(), last == 6 ? 1u : 0u);
    if (last == 6) qmi_client_release(last_notifier());
    reports.react = nullptr;
  }
}

TEST_P(Reconnect, DropsEveryIndication) {
  const std::string null = line("unsol_ind_cb", "Unexpected NULL pointer!", 'E');
  const auto handled = [&](const std::string& id) {
    return Lines{line("ind_hdlr", "Handling indication msg 0x" + id),
                 line("ind_hdlr", "Unknown indication msg " + id, 'E')};
  };
  // The vendor-specific service lends an indication that has a size.
  connection_.context->service_object = vs_get_service_object_internal_v01(1, 2, 6);
  const qmi_client_type handle = open();
  const auto indicated = [&](unsigned id, const std::string& wire) {
    clear_log();
    EXPECT_TRUE(indicate(handle, id, bytes(wire)));
    EXPECT_EQ(log_bodies().front(), entry("unsol_ind_cb"));
    EXPECT_EQ(log_bodies().back(), exit("unsol_ind_cb"));
    EXPECT_TRUE(live_blocks().empty());
    return messages();
  };
  EXPECT_EQ(indicated(0x0601, "01 0100 07"), handled("601"));
  EXPECT_EQ(indicated(0x004E, "01 0100 07"), handled("4e"));  // without a size: it is not decoded
  EXPECT_EQ(indicated(0x0601, "01 0200 0707"),
            Lines{line("unsol_ind_cb", "Indication decode failed for msg 0x601 with error -45", 'E')});
  if (FailAllocationOf::is_supported()) {
    FailAllocationOf failure(10704);
    EXPECT_EQ(indicated(0x0203, "").back(), null);
  }
  connection_.context->event_cb = nullptr;
  EXPECT_EQ(indicated(0x0601, "01 0100 07"), Lines{null});
  EXPECT_TRUE(events.empty());
}

// A process may end while connections are coming back.
TEST_P(Reconnect, LetsTheProcessEnd) {
  const auto end_meanwhile = [&] {
    const qmi_client_type lost = open();
    std::atomic<bool> trying = false;
    on_init_instance = [](int) { return QMI_TIMEOUT_ERR; };
    on_sleep = [&](unsigned) {
      trying = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    set_threads(Threads::kRun);
    on_registered = [](const Call& call) { announce_service(call.handle); };
    lose_service(lost);
    while (!trying) std::this_thread::yield();
    std::exit(0);
  };
  EXPECT_EXIT(end_meanwhile(), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(, Reconnect, testing::ValuesIn(kConnections), [](const auto& row) { return row.param.name; });

// What clients see of a restart: notices, refusals while it lasts, and nothing of it on the other subscription.
TEST_F(LibraryTest, RestartOfOneSubscription) {
  for (modem_api_client_type type = 0; type < MODEM_API_CLIENT_TYPES; ++type) open(type);
  const qmi_client_type other = nas_1_client_info.client_handle;
  forget();
  set_threads(Threads::kHold);
  lose_service(nas_0_client_info.client_handle);
  EXPECT_THAT(notices, ElementsAre(std::pair(MODEM_API_NOTICE_SERVICE_DOWN, MODEM_API_CLIENT_NAS_0)));
  run_held();
  announce_service(last_notifier());
  EXPECT_EQ(modem_api_set_avoid_trm(2, 0, 1), MODEM_API_ERR_INVALID_CLIENT);
  run_held();
  EXPECT_EQ(notices.back(), std::pair(uint32_t{MODEM_API_NOTICE_SERVICE_UP}, uint32_t{MODEM_API_CLIENT_NAS_0}));
  EXPECT_EQ(notices.size(), 2u);
  for (const Call& call : calls()) EXPECT_NE(call.handle, other);
  EXPECT_EQ(nas_1_client_info.client_handle, other);
  EXPECT_EQ(modem_api_set_avoid_trm(2, 0, 1), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_set_avoid_trm(3, 1, 1), MODEM_API_SUCCESS);
}

// All three restart over and over while two threads send through each and its owner releases it at any moment. Worker
// threads report in order, and nothing once the release has reported.
TEST(ReconnectUnderLoad, KeepsOrderAndLeavesNothing) {
  properties["persist.vendor.radio.adb_log_shell"] = properties["persist.vendor.radio.adb_log_ka"] = "0";
  const auto drive = [](const Connection& connection, unsigned seed) {
    std::atomic<bool> ends = false;
    const auto handle_in = [](qmi_client_type& field) { return __atomic_load_n(&field, __ATOMIC_ACQUIRE); };
    const auto restart = [&] {
      qmi_client_type lost = nullptr;
      while (!ends) {
        const qmi_client_type handle = handle_in(connection.context->client_handle);
        const qmi_client_type notifier = handle_in(connection.context->notifier_handle);
        if (handle != nullptr && handle != lost && lose_service(handle)) lost = handle;
        if (notifier != nullptr) announce_service(notifier);
        std::this_thread::yield();
      }
    };
    const auto send = [&] {
      uint32_t request = 0, response[2];
      while (!ends) {
        const int32_t code = connection.send(1, &request, sizeof(request), response, sizeof(response));
        EXPECT_TRUE(code == 0 || code == QMI_CLIENT_INVALID_CLNT) << code;
        std::this_thread::yield();
      }
    };
    for (unsigned round = 0; round < 20; ++round) {
      connection.init();
      connection.set_status_callback(on_status);
      EXPECT_TRUE(connection.open(on_event));
      ends = false;
      std::thread threads[] = {std::thread(restart), std::thread(send), std::thread(send)};
      while (statuses_of(connection).size() < 50 + (seed + round) % 7) std::this_thread::yield();
      connection.release();
      ends = true;
      for (std::thread& thread : threads) thread.join();

      Statuses seen = statuses_of(connection);
      const auto released = std::find(seen.begin() + 1, seen.end(), 0u);
      for (auto at = released; at != seen.end(); ++at) EXPECT_TRUE(*at != 5 && *at != 3 && *at != 7) << *at;
      const Statuses order = {3, 4, 5, 6};
      for (auto at = seen.begin() + 1; at < released; ++at) EXPECT_EQ(*at, order[(at - seen.begin() - 1) % 4]);
      std::lock_guard<std::mutex> guard(reports.lock);
      reports.of[connection.type].clear();
    }
  };
  std::thread drivers[] = {std::thread(drive, kConnections[0], 0), std::thread(drive, kConnections[1], 3),
                           std::thread(drive, kConnections[2], 5)};
  for (std::thread& driver : drivers) driver.join();
  for (const Connection& connection : kConnections) EXPECT_EQ(connection.context->client_handle, nullptr);
}

}  // namespace
