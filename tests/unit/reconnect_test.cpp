// How a connection is lost and comes back by itself.
#include "connection_test.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;

class Reconnect : public ConnectionTest {
 protected:
  qmi_client_type notifier() const { return *connection_.notifier; }
};
using ReconnectLog = Golden<Reconnect>;

TEST_P(ReconnectLog, ComesBackByItself) {
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

TEST_P(ReconnectLog, ReportsWhereItFails) {
  const struct {
    const char* failing;  // a call of the platform
    bool on_return;       // whether it fails when the service comes back, or when it is lost
    Statuses statuses;
    size_t open_handles;
  } rows[] = {
      {"pthread_create", false, {4, 0}, 1},     {"notifier_init", false, {4, 5}, 0},
      {"register_notify_cb", false, {4, 5}, 1}, {"pthread_create", true, {4, 5, 6, 7}, 1},
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
    }
    EXPECT_EQ(statuses(), row.statuses);
    EXPECT_EQ(open_handles() - others, row.open_handles);
    set_threads(Threads::kRun);
    on_call[row.failing] = nullptr;
    connection_.release();
  }
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

// A notifier that an earlier release dropped may connect a client that is about to be opened.
TEST_P(Reconnect, HoldsOneConnectionAfterALateAnnouncement) {
  lose_service(open());
  run_held();
  const qmi_client_type dropped = notifier();
  connection_.release();
  start();
  EXPECT_TRUE(announce_service(dropped));
  run_held();
  EXPECT_EQ(statuses(), (Statuses{6, 3}));
  const qmi_client_type unrequested = connection_.handle;
  EXPECT_TRUE(is_open(open()));
  EXPECT_FALSE(is_open(unrequested));
}

INSTANTIATE_TEST_SUITE_P(, Reconnect, testing::ValuesIn(kConnections + 1, std::end(kConnections)),
                         [](const auto& row) { return row.param.name; });
INSTANTIATE_TEST_SUITE_P(, ReconnectLog, testing::ValuesIn(kConnections + 1, std::end(kConnections)),
                         [](const auto& row) { return row.param.name; });

}  // namespace
