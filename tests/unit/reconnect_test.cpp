// How a connection is lost and comes back by itself, and the release that ends it at any moment.
#include <future>
#include <thread>

#include "connection_test.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;

class Reconnect : public ConnectionTest {
 protected:
  qmi_client_type notifier() const { return *connection_.notifier; }
};

TEST_P(Reconnect, ComesBackByItself) {
  const qmi_client_type lost = open();
  EXPECT_TRUE(lose_service(lost));
  EXPECT_EQ(statuses(), (Statuses{4}));
  EXPECT_TRUE(is_open(lost)) << "the callback's thread is not held up";
  run_held();
  EXPECT_EQ(statuses(), (Statuses{4, 5}));
  EXPECT_FALSE(is_open(lost));
  EXPECT_EQ(connection_.connected, 0);
  EXPECT_EQ(connection_.send(1, nullptr, 0, nullptr, 0), QMI_CLIENT_INVALID_CLNT);
  const qmi_client_type notifier = this->notifier();
  EXPECT_TRUE(announce_service(notifier, QMI_CLIENT_SERVICE_COUNT_DEC));
  EXPECT_EQ(held_threads(), 0U);
  clear_calls();
  EXPECT_TRUE(announce_service(notifier));
  EXPECT_EQ(statuses(), (Statuses{4, 5, 6}));
  EXPECT_EQ(held_threads(), 1U);
  run_held();
  EXPECT_EQ(statuses(), (Statuses{4, 5, 6, 3}));

  auto expected_calls = attempt_calls(0);
  expected_calls.insert(expected_calls.begin(), {.name = "release", .handle = notifier});
  EXPECT_EQ(calls(), expected_calls);
  EXPECT_EQ(open_handles(), 1U);
  EXPECT_EQ(this->notifier(), nullptr);
  EXPECT_EQ(connection_.send(1, nullptr, 0, nullptr, 0), 0);
}

TEST_P(Reconnect, ReportsWhereItFails) {
  const struct {
    const char* failing;  // a call of the platform
    bool on_return;       // whether it fails when the service comes back, or when it is lost
    Statuses statuses;
    size_t open_handles;
  } rows[] = {
      {"pthread_create", false, {4, 0}, 1},     {"notifier_init", false, {4, 5}, 0},
      {"register_notify_cb", false, {4, 5}, 1}, {"pthread_create", true, {4, 5, 6, 7, 6, 7}, 1},
      {"init_instance", true, {4, 5, 6, 7}, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    start();
    const size_t others = open_handles();
    const qmi_client_type lost = open();
    const auto fail = [&] {
      if (std::string(row.failing) == "pthread_create") set_threads(Threads::kFail);
      on_call[row.failing] = returns(-1);
    };
    if (!row.on_return) fail();
    lose_service(lost);
    run_held();
    if (row.on_return) {
      fail();
      announce_service(notifier());
      run_held();
      if (notifier() != nullptr) announce_service(notifier());
    }
    EXPECT_EQ(statuses(), row.statuses);
    EXPECT_EQ(open_handles() - others, row.open_handles);
    set_threads(Threads::kRun);
    on_call[row.failing] = nullptr;
    connection_.release();
  }
  expect_golden_log();
}

// Whatever handle it names, and also before the thread of an earlier call has run. A notifier that is held is
// registered again, and not made again.
TEST_P(Reconnect, TakesEveryCallForALoss) {
  const qmi_client_type lost = open();
  lose_service(lost);
  connection_.service_down(lost, -2, nullptr);
  run_held();
  const qmi_client_type notifier = this->notifier();
  connection_.service_down(lost, -2, nullptr);
  run_held();
  connection_.release_thread(nullptr);
  EXPECT_EQ(statuses(), (Statuses{4, 4, 5, 5, 4, 5, 5}));
  const Call registration = {.name = "register_notify_cb", .handle = notifier};
  EXPECT_THAT(calls(), ElementsAre(Call{.name = "release", .handle = lost}, Call{.name = "notifier_init"}, registration,
                                   registration, registration, registration));
  // A loss and a further announcement while the thread that connects is started: it connects, once.
  announce_service(notifier);
  connection_.service_down(nullptr, -2, nullptr);
  announce_service(notifier);
  EXPECT_EQ(held_threads(), 2U);
  forget();
  for (int round = 0; round < 2; ++round) {  // first a loss of the connection that has just come back
    run_held();
    announce_service(this->notifier());
    run_held();
    EXPECT_EQ(statuses(), (round == 0 ? Statuses{3, 5, 6, 3} : Statuses{4, 5, 6, 3}));
    EXPECT_EQ(open_handles(), 1U);
    forget();
    connection_.service_down(lost, -2, nullptr);
  }
  // A released client has nothing to lose.
  connection_.release();
  run_held();
  forget();
  connection_.service_down(lost, -2, nullptr);
  EXPECT_THAT(statuses(), IsEmpty());
  EXPECT_EQ(held_threads(), 0U);
}

TEST_P(Reconnect, TakesALossDuringTheConnectionAfterIt) {
  int losses = 2;
  on_call["register_notify_cb"] = announce_at_registration;
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

// A notifier that a release dropped may connect a client that is about to be opened; a released one ignores it.
TEST_P(Reconnect, HoldsOneConnectionAfterALateAnnouncement) {
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
  EXPECT_TRUE(is_open(open()));
  EXPECT_FALSE(is_open(unrequested));
}

// A release ends a reconnection wherever it is, and what that had made. No status follows its own.
TEST_P(Reconnect, EndsAReconnectionAtAnyMoment) {
  const struct {
    std::string moment;  // a status that is reported, or a call of the platform
    Statuses statuses;
    size_t left_open;  // a notifier is dropped without release
  } rows[] = {{"4", {4, 0}, 0},         {"release", {4, 0}, 0},     {"5", {4, 5, 0}, 0},
              {"6", {4, 5, 6, 0}, 1},   {"sleep", {4, 5, 6, 0}, 0}, {"connect", {4, 5, 6, 0}, 0},
              {"3", {4, 5, 6, 3, 0}, 0}};
  for (const auto& row : rows) {
    for (const bool by_other_thread : {false, true}) {
      // The thread that releases a handle is not the user's.
      if (row.moment == "release" && !by_other_thread) continue;
      SCOPED_TRACE(testing::Message() << row.moment << by_other_thread);
      start();
      const size_t others = open_handles();
      const qmi_client_type lost = open();
      std::future<void> other;
      bool released = false;
      const auto come_to = [&](const std::string& moment) {
        if (moment != row.moment || std::exchange(released, true)) return 0;
        if (!by_other_thread) return connection_.release() ? 0 : -1;
        set_threads(Threads::kRun);
        other = std::async(std::launch::async, [&] { connection_.release(); });
        set_threads(Threads::kHold);
        while (!logged("D " + connection_.name + "_release: function entry ------------->")) std::this_thread::yield();
        other.wait_for(std::chrono::milliseconds(150));  // time to get where it ends, or waits for this thread
        return 0;
      };
      reports.react = [&](uint32_t status) { come_to(std::to_string(status)); };
      on_call["release"] = on_call["sleep"] = [&](const Call& call) { return come_to(call.name); };
      on_call["init_instance"] = [&](const Call&) {
        EXPECT_FALSE(released) << "no attempt follows the release";
        come_to("connect");
        return row.moment == "sleep" ? QMI_TIMEOUT_ERR : 0;
      };
      lose_service(lost);
      run_held();
      const qmi_client_type notifier = this->notifier();
      if (notifier != nullptr) announce_service(notifier);
      run_held();
      if (other.valid()) other.get();
      EXPECT_EQ(statuses(), row.statuses);
      EXPECT_EQ(open_handles() - others, row.left_open);
      EXPECT_TRUE(connection_.is_clear());
      reports.react = nullptr;
      on_call["release"] = on_call["sleep"] = on_call["init_instance"] = nullptr;
    }
  }
}

TEST_P(Reconnect, LeavesAnOpeningWithoutAConnection) {
  for (const int outcome : {0, int{QMI_TIMEOUT_ERR}}) {
    start();
    on_call["init_instance"] = [&](const Call&) {
      connection_.release();
      return outcome;
    };
    EXPECT_FALSE(connection_.open(on_event)) << outcome;
    EXPECT_EQ(open_handles(), 0U) << outcome;
  }
}

INSTANTIATE_TEST_SUITE_P(, Reconnect, testing::ValuesIn(kConnections + 1, std::end(kConnections)),
                         [](const auto& row) { return row.param.name; });

}  // namespace
