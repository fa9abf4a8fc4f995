// How a connection comes up, is lost and comes back by itself.
#include <cerrno>
#include <tuple>

#include "reconnect_test.h"
#include "vs_client.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;

using Reconnect = Golden<ReconnectTest>;

TEST_P(Reconnect, TriesTenTimesAtMost) {
  for (int failures : {0, 1, 9, 10}) {
    SCOPED_TRACE(failures);
    int attempts = 0;
    on_init_instance = [&](int) { return attempts++ < failures ? QMI_TIMEOUT_ERR : 0; };
    // Signals that cut the pauses short change nothing: the rest of each is waited for.
    const bool interrupted = failures == 9;
    on_sleep = [&](unsigned) {
      if (interrupted) errno = EINTR;
    };
    timespec before;
    clock_gettime(CLOCK_MONOTONIC, &before);
    waits.clear();
    errno = EINTR;  // from something earlier
    // A binding that the modem refuses changes nothing, and neither does a registration without response.
    on_send = [](const Call& call) { return Outcome{call.msg_id == 3 ? -3 : 0, header(call.msg_id == 0x0045, 48)}; };
    const bool up = failures < 10;
    start();
    EXPECT_EQ(connection_.open(on_event), up);
    EXPECT_EQ(statuses(), (Statuses{1, up ? 3u : 2u}));
    EXPECT_EQ(sleeps, std::vector<unsigned>(std::min<size_t>(failures, 9), 1));
    EXPECT_EQ(waits.size(), interrupted ? 18u : 0u);
    for (const timespec& end : waits) {
      EXPECT_GE(std::tie(end.tv_sec, end.tv_nsec), std::tuple(before.tv_sec + 1, before.tv_nsec));
    }
    EXPECT_EQ(calls(), attempt_calls(failures, last_connection()));
    EXPECT_EQ(connection_.context->client_handle, up ? last_connection() : nullptr);
    EXPECT_EQ(connection_.context->connected, up);
    connection_.release();
  }
  on_sleep = nullptr;
  // The attempts alone report nothing.
  on_init_instance = [](int) { return QMI_TIMEOUT_ERR; };
  start();
  EXPECT_FALSE(connection_.attempt());
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
}

TEST_P(Reconnect, ReportsWhereItFails) {
  const struct {
    std::function<void()> before_loss, before_return;
    Statuses statuses;
    size_t open_handles;
  } rows[] = {
      {[] { set_threads(Threads::kFail); }, nullptr, {4, 0}, 1},
      {[] { notifier_init_result = -1; }, nullptr, {4, 5}, 0},
      {[] { register_notify_result = -2; }, nullptr, {4, 5}, 1},
      {nullptr, [] { set_threads(Threads::kFail); }, {4, 5, 6, 7}, 1},
      {nullptr, [] { on_init_instance = [](int) { return QMI_TIMEOUT_ERR; }; }, {4, 5, 6, 7}, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
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
    EXPECT_EQ(open_handles() - others, row.open_handles);
    set_threads(Threads::kRun);
    on_init_instance = nullptr;
    notifier_init_result = register_notify_result = 0;
    connection_.release();
  }
}

// Whatever handle it names. A notifier that is held is registered again, and not made again.
TEST_P(Reconnect, TakesEveryCallForALoss) {
  const qmi_client_type lost = open();
  lose_service(lost);
  run_held();
  const qmi_client_type notifier = last_notifier();
  EXPECT_EQ(connection_.context->notifier_handle, notifier);
  connection_.service_down(lost, -2, nullptr);
  run_held();
  connection_.release_thread(nullptr);
  EXPECT_EQ(statuses(), (Statuses{4, 5, 4, 5, 5}));
  const Call registration = {.name = "register_notify_cb", .handle = notifier};
  EXPECT_THAT(calls(), ElementsAre(Call{.name = "release", .handle = lost}, Call{.name = "notifier_init"}, registration,
                                   registration, registration));
  // A loss and a further announcement while the thread that connects is started: it connects, once.
  announce_service(notifier);
  connection_.service_down(nullptr, -2, nullptr);
  announce_service(notifier);
  EXPECT_EQ(held_threads(), 2u);
  forget();
  for (int round = 0; round < 2; ++round) {  // first a loss of the connection that has just come back
    run_held();
    announce_service(last_notifier());
    run_held();
    EXPECT_EQ(statuses(), (round == 0 ? Statuses{3, 5, 6, 3} : Statuses{4, 5, 6, 3}));
    EXPECT_EQ(open_handles(), 1u);
    forget();
    connection_.service_down(lost, -2, nullptr);
  }
  // A released client has nothing to lose.
  connection_.release();
  run_held();
  forget();
  connection_.service_down(lost, -2, nullptr);
  EXPECT_EQ(statuses(), Statuses());
  EXPECT_EQ(held_threads(), 0u);
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

TEST_P(Reconnect, DropsEveryIndication) {
  connection_.context->service_object = vs_get_service_object_internal_v01(1, 2, 6);  // whose indications have a size
  const qmi_client_type handle = open();
  for (const auto& [id, wire] :
       {std::pair{0x0601U, "01 0100 07"}, {0x004EU, "01 0100 07"}, {0x0601U, "01 0200 0707"}}) {
    EXPECT_TRUE(indicate(handle, id, bytes(wire)));
  }
  connection_.context->event_cb = nullptr;
  EXPECT_TRUE(indicate(handle, 0x0601, bytes("01 0100 07")));
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(live_blocks(), IsEmpty());
}

TEST_P(Reconnect, DropsAnIndicationWithoutMemory) {
  if (!FailAllocationOf::is_supported()) GTEST_SKIP() << "no allocation can be made to fail here";
  connection_.context->service_object = vs_get_service_object_internal_v01(1, 2, 6);
  const qmi_client_type handle = open();
  const FailAllocationOf failure(10704);
  EXPECT_TRUE(indicate(handle, 0x0203, {}));
}

// The modem's response goes to the callback of the exchange, and both of its blocks are freed.
TEST_P(Reconnect, EndsAsynchronousExchanges) {
  static std::vector<uint32_t> results;
  const modem_api_response_cb callback = [](const uint8_t*, uint32_t, void*, uint32_t result) {
    results.push_back(result);
  };
  Bytes request = {1, 2, 3, 4};
  EXPECT_EQ(connection_.send_async(0x0089, request.data(), 4, request.data(), 4, nullptr), QMI_CLIENT_INVALID_CLNT);
  const qmi_client_type handle = open();
  const std::pair<Outcome, uint32_t> outcomes[] = {
      {{0, header(0, 0)}, MODEM_API_RESP_END}, {{0, header(1, 52)}, MODEM_API_ERR_NOT_READY}, {{-3, {}}, 11}};
  for (const auto& [outcome, result] : outcomes) {
    void* const record = hydra_malloc_adv(16, "test", 0);
    void* const fields[] = {reinterpret_cast<void*>(callback), nullptr};
    std::memcpy(record, fields, sizeof(fields));
    results.clear();
    forget();
    EXPECT_EQ(connection_.send_async(0x0089, request.data(), 4, hydra_malloc_adv(8, "test", 0), 8, record), 0);
    EXPECT_THAT(calls(), ElementsAre(Call{"send_msg_async", handle, 0x0089, request, 8}));
    complete_send(outcome.response, outcome.code);
    EXPECT_THAT(results, ElementsAre(result));
    EXPECT_THAT(live_blocks(), IsEmpty());
  }
}

INSTANTIATE_TEST_SUITE_P(, Reconnect, testing::ValuesIn(kConnections), [](const auto& row) { return row.param.name; });

}  // namespace
