// Client handles with a scripted modem: connecting, sends, indications, and which calls wait for others.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <latch>
#include <string>
#include <thread>

#include "client_fixture.h"

namespace pelmar::platform {
namespace {

TEST_F(ClientTest, ConnectsIfTheModemHasTheServiceAndAnIdWithinTheTimeout) {
  std::atomic<int> looks = 0;
  const auto on = [this](uint16_t at, const std::function<void(Bytes&)>& change) {
    modem_.on_control.set([=](int, uint16_t id, Bytes& tlvs) {
      if (id == at) change(tlvs);
      return true;
    });
  };
  constexpr size_t kValueAt = 10;  // behind the result TLV and the head of the next one
  const auto list_none = [&](Bytes& tlvs) {
    tlvs[kValueAt] = 0;
    ++looks;
  };
  connect();
  const std::string socket = ::getenv("PELMAR_MODEM");
  const struct {
    std::function<void()> prepare;
    int error;
  } cases[] = {
      {[this] { modem_.client_id_limit = 1; }, QMI_CLIENT_ALLOC_FAILURE},
      {[&] { on(ScriptedModem::kGetVersionInfo, [](Bytes&) { std::this_thread::sleep_for(milliseconds(1200)); }); },
       QMI_TIMEOUT_ERR},
      {[&] { on(ScriptedModem::kGetVersionInfo, list_none); }, QMI_TIMEOUT_ERR},
      {[&] { on(ScriptedModem::kAllocate, [](Bytes& tlvs) { tlvs[kValueAt] = 0x11; }); }, QMI_CLIENT_ALLOC_FAILURE},
      {[&] { on(ScriptedModem::kAllocate, [](Bytes& tlvs) { tlvs.back() = 0; }); }, QMI_CLIENT_ALLOC_FAILURE},
      {[&] { on(ScriptedModem::kAllocate, [](Bytes& tlvs) { tlvs.clear(); }); }, QMI_CLIENT_ALLOC_FAILURE},
      {[this] {
         ::setenv("PELMAR_MODEM", "qrtr:x", 1);
         create_notifier();
       },
       QMI_CLIENT_PARAM_ERR},
      {[] { ::setenv("PELMAR_MODEM", "@no-such-modem", 1); }, QMI_TIMEOUT_ERR},
      {[] { ::setenv("PELMAR_MODEM", "/dev/no-such-device", 1); }, QMI_TIMEOUT_ERR},
      {[] { ::setenv("PELMAR_MODEM", "proxy:/dev/no-such-device", 1); }, QMI_TIMEOUT_ERR},
      {[this] { modem_.services.set({0x11}); }, QMI_TIMEOUT_ERR},
  };
  ::openlog("client", LOG_PERROR, LOG_USER);
  testing::internal::CaptureStderr();
  for (const auto& [prepare, error] : cases) {
    ::setenv("PELMAR_MODEM", socket.c_str(), 1);
    modem_.on_control.set(nullptr);
    modem_.client_id_limit = 10;
    prepare();
    auto handle = reinterpret_cast<qmi_client_type>(this);
    const auto start = Clock::now();
    EXPECT_EQ(open(&handle, 50), error);
    EXPECT_TRUE(error != QMI_TIMEOUT_ERR || Clock::now() - start >= milliseconds(50));
    EXPECT_EQ(handle, nullptr);
  }
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2)
      << "a line for the missing client id and one for the wrong address: " << log;
  EXPECT_LE(looks, 10) << "the pauses between the attempts grow";
  EXPECT_EQ(events(0), Events{}) << "no modem has the wrong address";
  auto late = std::async(std::launch::async, [this] {
    std::this_thread::sleep_for(milliseconds(50));
    modem_.services.set({kNasId});
  });
  connect(60'000);
  modem_.client_ids.set({});
}

// The modem restarts, or revokes an id, at one of the open's four requests: to the proxy, for the list, for an id, and
// to release the id of a dead process.
TEST_F(ClientTest, AnOpenUsesNoIdThatTheModemVoidsDuringIt) {
  const Bytes stale = join({{1, 77, 0x22, 0, 12, 0}, kSuccess, {0x01, 2, 0, kNasId, 99}});
  const Bytes others = join({frame(0, 0, {2, 0}), frame(0, 0, stale)});  // no message; an earlier request's response
  uint8_t id = 0;
  for (int event = 0; event < 8; ++event) {
    const auto before = std::make_shared<std::atomic<int>>(event / 2);  // a late release counts, too
    ++id;
    record_.restore({{kNasId, 99}}, Deadline::none());
    modem_.on_control.set([=, this](int connection, uint16_t request, Bytes&) {
      if (request == ScriptedModem::kAllocate) modem_.send(connection, others);
      if ((*before)-- != 0) return true;
      if (event % 2 == 0) {
        modem_.announce_restart(connection);
      } else {
        modem_.revoke(connection, kNasId, id);
      }
      if (event != 4) modem_.client_ids.set({});
      return true;
    });
    const qmi_client_type handle = connect(60'000);
    if (event >= 4) ++id;  // an event before the allocation voids no id
    const ScriptedModem::ClientIds expected = {{kNasId, id}};
    EXPECT_TRUE(modem_.client_ids.wait_until([&](const auto& ids) { return ids == expected; }));
    EXPECT_EQ(record_.held(Deadline::none()).size(), 1u);
    qmi_client_release(handle);
  }
}

TEST_P(BothRules, RefusesInvalidHandlesMessagesAndCallbacks) {
  qmi_client_type handle = nullptr;
  EXPECT_EQ(open(&handle, 4, nullptr), QMI_CLIENT_PARAM_ERR);
  EXPECT_EQ(open(nullptr), QMI_CLIENT_PARAM_ERR);
  handle = connect();
  ::close(0);
  const qmi_client_type released = connect();
  qmi_client_release(released);
  EXPECT_EQ(::fcntl(0, F_GETFD), -1) << "a release closes descriptor 0, too";
  for (const qmi_client_type bad : {qmi_client_type{nullptr}, reinterpret_cast<qmi_client_type>(this), released}) {
    EXPECT_EQ(get_drx(bad).first, QMI_CLIENT_INVALID_CLNT);
    EXPECT_EQ(qmi_client_release(bad), QMI_CLIENT_INVALID_CLNT);
    EXPECT_EQ(qmi_client_register_error_cb(bad, nullptr, nullptr), QMI_CLIENT_INVALID_CLNT);
    EXPECT_EQ(qmi_client_register_notify_cb(bad, nullptr, nullptr), QMI_CLIENT_INVALID_CLNT);
  }
  constexpr unsigned kLength = sizeof async_response_;
  const struct {
    unsigned id, request_length, response_length;
    int forgiving, phone;  // QMI_TIMEOUT_ERR: the request is sent
  } sends[] = {
      {0x7777, 1, kLength, QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND, QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND},
      {0x10000 + kDrx, 1, kLength, QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND, QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND},
      {kDrx, 0, kLength, QMI_IDL_LIB_BUFFER_TOO_SMALL, QMI_TIMEOUT_ERR},
      {kDrx, 2, kLength, QMI_TIMEOUT_ERR, QMI_CLIENT_PARAM_ERR},
      {kDrx, 1, kLength - 1, QMI_IDL_LIB_BUFFER_TOO_SMALL, QMI_IDL_LIB_BUFFER_TOO_SMALL},
  };
  uint8_t request[2] = {};
  void* const to = &async_response_;
  for (const auto& [id, size, room, forgiving, phone] : sends) {
    const int error = by_rules(forgiving, phone);
    EXPECT_EQ(qmi_client_send_msg_sync(handle, id, request, size, to, room, 10), error);
    EXPECT_EQ(qmi_client_send_msg_async(handle, id, request, size, to, room, on_response, this, nullptr),
              error == QMI_TIMEOUT_ERR ? QMI_NO_ERR : error);
  }
  EXPECT_EQ(qmi_client_register_error_cb(handle, nullptr, nullptr), by_rules(QMI_NO_ERR, QMI_CLIENT_PARAM_ERR));
}

TEST_P(BothRules, ASenderTakesOnlyItsOwnResponse) {
  const qmi_client_type handle = connect();
  Exchange late = begin(handle, 30);
  EXPECT_EQ(late.outcome.get(), Outcome(QMI_TIMEOUT_ERR, 0));
  Exchange exchange = begin(handle);
  ScriptedRequest other_message = exchange.request, other_client = exchange.request;
  other_message.id = QMI_NAS_SET_AVOID_TRM_V01;
  ++other_client.client;
  modem_.send(0, frame(kNasId, exchange.request.client, {4, 0, 0}));  // no message
  for (const ScriptedRequest& foreign : {late.request, other_message, other_client}) {
    modem_.respond(foreign, drx_response(1));
  }
  EXPECT_EQ(finish(exchange, 4), Outcome(0, 4));

  Bytes cut = message(2, 0, kDrx, drx_response(5));
  cut.resize(cut.size() - 7);  // a whole TLV is missing, but the header counts it
  const int cut_error = by_rules<int>(QMI_IDL_LIB_LENGTH_INCONSISTENCY, QMI_TIMEOUT_ERR);
  for (auto [response, error] :
       {std::pair(cut, cut_error), std::pair(message(2, 0, kDrx, {}), int{QMI_IDL_LIB_MISSING_TLV})}) {
    Exchange broken = begin(handle, error == QMI_TIMEOUT_ERR ? 100 : 60'000);
    response[1] = static_cast<uint8_t>(broken.request.transaction);
    modem_.send(0, frame(kNasId, broken.request.client, response));
    EXPECT_EQ(broken.outcome.get().first, error);
  }
}

TEST_P(BothRules, ATimeoutAfterAPartialMessageEndsTheConnection) {
  const qmi_client_type handle = connect_with_error_callback();
  modem_.send(0, {0x01, 12, 1, 0x80, kNasId, 1, 4, 0, 0, 1, 0, 0, 0});  // the length announces 256 bytes more
  // On a slow machine the bytes may arrive late, and a later time-out ends the connection.
  int error = QMI_TIMEOUT_ERR;
  while (error == QMI_TIMEOUT_ERR) error = get_drx(handle, 200).first;
  EXPECT_EQ(error, QMI_SERVICE_ERR);
  EXPECT_EQ(events(1), (Events{"error -2"}));
}

TEST_P(BothRules, SendersGetTheirOwnResponsesInAnyOrder) {
  const qmi_client_type handle = connect();
  for (const size_t first : {size_t{0}, size_t{1}}) {
    Exchange exchanges[] = {begin(handle), begin(handle)};
    EXPECT_EQ(begin(handle, 500).outcome.get().first, QMI_TIMEOUT_ERR)
        << "a sender that does not read has its own time-out";
    for (const size_t i : {first, 1 - first}) EXPECT_EQ(finish(exchanges[i], static_cast<uint8_t>(i)), Outcome(0, i));
  }
}

// Threads send on one handle, and each opens and releases handles of its own. After the loss each registration calls
// the error callback.
TEST_P(BothRules, ThreadsShareAHandle) {
  constexpr int kThreads = 4, kRounds = 30;
  const qmi_client_type shared = connect();
  const auto in_threads = [](const std::function<void()>& body) {
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < kThreads; ++thread) threads.push_back(std::async(std::launch::async, body));
    return threads;
  };
  auto senders = in_threads([&] {
    for (int round = 0; round < kRounds; ++round) {
      EXPECT_EQ(qmi_client_register_error_cb(shared, on_error, this), QMI_NO_ERR);
      EXPECT_EQ(get_drx(shared), Outcome(0, 1));
      qmi_client_type own = nullptr;
      EXPECT_EQ(open(&own, 60'000), QMI_NO_ERR);
      uint8_t request = 0;
      nas::GetDrxResponse response{};
      EXPECT_EQ(
          qmi_client_send_msg_async(own, kDrx, &request, 1, &response, sizeof response, on_response, this, nullptr),
          QMI_NO_ERR);
      qmi_client_release(own);
    }
  });
  for (int requests = 2 * kThreads * kRounds; requests > 0; --requests) {
    const ScriptedRequest request = modem_.receive();
    modem_.indicate(request.connection, kNasId, 0xFF, 1);
    modem_.respond(request, drx_response(request.client));
  }
  for (auto& thread : senders) thread.wait();
  modem_.close(0);
  EXPECT_EQ(get_drx(shared).first, QMI_SERVICE_ERR);
  in_threads([&] {
    for (int round = 0; round < kRounds; ++round) {
      EXPECT_EQ(qmi_client_register_error_cb(shared, on_error, this), QMI_SERVICE_ERR);
    }
  });
  const Events all = events(0);
  EXPECT_GE(std::count(all.begin(), all.end(), "error -2"), kThreads * kRounds);
  modem_.client_ids.set({});
}

TEST_P(BothRules, IndicationsAndResponsesAreDeliveredInOrderOnAnotherThread) {
  on_callback_.set([&](qmi_client_type) {
    const size_t count = events(0).size();
    if (count == 1 || count == 5) modem_.indicate(0, kNasId, 0xFF, 5, Bytes(999, 0x5A));
    sigset_t blocked;
    EXPECT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &blocked), 0);
    EXPECT_EQ(::sigismember(&blocked, SIGINT), 1) << "the program's own threads handle signals";
  });
  const qmi_client_type handle = connect();
  qmi_txn_handle transaction = nullptr;
  ASSERT_EQ(send_async(handle, &transaction), QMI_NO_ERR);
  const ScriptedRequest async = modem_.receive();
  EXPECT_EQ(reinterpret_cast<uintptr_t>(transaction), async.transaction);
  EXPECT_NE(async.transaction, 0);

  Exchange sync = begin(handle, 0);
  const auto response = [&](uint16_t id, uint8_t value) {
    const Bytes tlvs = join({drx_response(value), {0x77, 200, 0}, Bytes(200)});
    return frame(kNasId, async.client, message(2, async.transaction, id, tlvs));
  };
  modem_.send(0,
              join({frame(kNasId, async.client, message(4, 0, 1, {1, 2, 3})), frame(kNasId, 0xFF, message(4, 0, 2, {})),
                    frame(0x11, async.client, message(4, 0, 99, {})), response(QMI_NAS_SET_AVOID_TRM_V01, 76),
                    response(kDrx, 77), response(kDrx, 78), frame(kNasId, async.client, message(4, 0, 3, {}))}));
  EXPECT_EQ(finish(sync, 78), Outcome(0, 78));
  EXPECT_EQ(events(6), (Events{"indication 1 (3)", "indication 2 (0)", "response 137 0 77", "indication 3 (0)",
                               "indication 5 (999)", "indication 5 (999)"}));
}

// By the phone's rules no response is read while the callback runs, so a send on the same handle times out.
TEST_P(BothRules, ACallbackMaySendAndBlocksNoOtherHandle) {
  const qmi_client_type slow = connect(), other = connect();
  const unsigned timeout = by_rules(60'000u, 100u);
  const auto outcome_of = [](uint8_t drx) { return by_rules(Outcome(0, drx), Outcome(QMI_TIMEOUT_ERR, 0)); };
  const auto text_of = [](const Outcome& outcome) {
    return "sync " + std::to_string(outcome.first) + " " + std::to_string(outcome.second);
  };
  std::latch go_on(1);
  on_callback_.set([&](qmi_client_type handle) {
    note(text_of(get_drx(handle, timeout)));
    note(text_of(get_drx(other)));
    go_on.wait();
  });
  modem_.indicate(0, kNasId, 0xFF, 1);
  modem_.respond(modem_.receive(), drx_response(5));
  modem_.respond(modem_.receive(), drx_response(6));
  EXPECT_EQ(events(3), (Events{"indication 1 (0)", text_of(outcome_of(5)), "sync 0 6"}));
  on_callback_.set(nullptr);

  modem_.indicate(0, kNasId, 0xFF, 2);
  Exchange of_slow = begin(slow, timeout), of_other = begin(other);
  EXPECT_EQ(finish(of_slow, 7), outcome_of(7));
  EXPECT_EQ(finish(of_other, 8), Outcome(0, 8));
  modem_.indicate(1, kNasId, 0xFF, 3);
  EXPECT_EQ(events(4).back(), "indication 3 (0)");
  go_on.count_down();
  EXPECT_EQ(events(5).back(), "indication 2 (0)");
}

TEST_F(ClientTest, PendingTransactionsAreLimitedAndHaveUniqueNumbers) {
  const qmi_client_type handle = connect();
  std::set<uint16_t> numbers = {0, begin_async(handle).transaction};
  for (size_t count = 0; count < UINT16_MAX - 512; ++count) {  // each request that cannot be encoded uses a number
    ASSERT_EQ(send_without_request(handle), QMI_IDL_LIB_BUFFER_TOO_SMALL);
  }
  ScriptedRequest last{};
  for (size_t count = 1; count < 1024; ++count) {
    last = begin_async(handle);
    EXPECT_TRUE(numbers.insert(last.transaction).second) << last.transaction;
  }
  EXPECT_EQ(send_async(handle), QMI_XPORT_BUSY_ERR);
  EXPECT_EQ(*numbers.rbegin(), UINT16_MAX) << "the numbers wrapped around after the last";
  Exchange sync = begin(handle);
  EXPECT_EQ(finish(sync, 1), Outcome(0, 1)) << "a synchronous send is not limited";
  modem_.respond(last, drx_response(2));
  events(1);
  EXPECT_EQ(send_async(handle), QMI_NO_ERR);
}

TEST_P(BothRules, AModemThatReadsNothingDoesNotBlockASendForEver) {
  const Outcome released = {by_rules(QMI_CLIENT_INVALID_CLNT, QMI_INTERNAL_ERR), 0};
  const Outcome outcomes[] = {Outcome(0, 1), lost(), released};
  for (const uint8_t connection : {0, 1, 2}) {
    const qmi_client_type handle = connect();
    std::unique_lock reading(modem_.reading);
    constexpr int kMany = 300;  // more than a socket takes
    for (int count = 0; count < kMany; ++count) ASSERT_EQ(get_drx(handle, 1), Outcome(QMI_TIMEOUT_ERR, 0));
    std::latch begun(2);
    const auto send = [&] {
      begun.count_down();
      return get_drx(handle, 0);
    };
    auto blocked = std::async(std::launch::async, send);
    std::this_thread::sleep_for(milliseconds(50));  // it owns the sending side by now
    auto waiting = std::async(std::launch::async, send);
    begun.wait();
    const auto start = Clock::now();
    EXPECT_EQ(get_drx(handle, 50), Outcome(QMI_TIMEOUT_ERR, 0));
    EXPECT_GE(Clock::now() - start, milliseconds(50));  // so `waiting` has had the time to wait
    modem_.indicate(connection, kNasId, 0xFF, 1);
    EXPECT_EQ(events(connection + 1u).size(), connection + 1u) << "the modem may have to write before it reads";
    if (connection == 2) {
      EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
    } else if (connection == 1) {
      GetParam() ? modem_.send(1, {0xFF}) : modem_.revoke(1, kNasId, 2);
    } else {
      reading.unlock();
      ScriptedRequest request = modem_.receive();
      while (request.transaction <= kMany) request = modem_.receive();
      const ScriptedRequest next = modem_.receive();
      for (const ScriptedRequest& each : {request, next}) modem_.respond(each, drx_response(1));
      EXPECT_EQ(next.transaction, request.transaction + 1) << "no send begins before another one has ended";
    }
    for (auto* outcome : {&blocked, &waiting}) EXPECT_EQ(outcome->get(), outcomes[connection]);
  }
  connect();
  EXPECT_FALSE(modem_.client_ids.get().contains({kNasId, 3})) << "the next open releases what a release could not";
  modem_.client_ids.set({});
}

// They accumulate behind a slow callback while a sender reads the connection.
TEST_F(ClientTest, TheOldestIndicationsAreDroppedIfTooManyWait) {
  constexpr uint16_t kLast = 1300;
  const Bytes payload(60'000, 0x5A);  // the limit is below the size of kLast of them
  const qmi_client_type handle = connect();
  std::latch go_on(1);
  on_callback_.set([&](qmi_client_type) { go_on.wait(); });
  ::openlog("client", LOG_PERROR, LOG_USER);
  testing::internal::CaptureStderr();
  modem_.indicate(0, kNasId, 0xFF, 1);
  events(1);  // its callback blocks the handle's thread
  on_callback_.set(nullptr);
  Exchange sync = begin(handle, 0);
  for (uint16_t id = 2; id <= kLast; ++id) modem_.indicate(0, kNasId, 0xFF, id, payload);
  EXPECT_EQ(finish(sync, 4), Outcome(0, 4)) << "the response behind them arrives";
  go_on.count_down();
  EXPECT_TRUE(events_.wait_until([](const Events& events) { return events.back() == "indication 1300 (60000)"; }));
  const size_t arrived = events(0).size();
  EXPECT_TRUE(arrived > 1000 && arrived < kLast) << arrived;
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "client: QMI service 0x03: a client's callbacks are too slow, " +
                                                        std::to_string(kLast - arrived) +
                                                        " indications were dropped\n");
}

INSTANTIATE_TEST_SUITE_P(Rules, BothRules, testing::Bool(), name_of_rules);

// --- what the phone's rules forbid ---

TEST_F(ClientTest, PhoneRulesEndAProcessWhoseCallWouldNeverReturn) {
  ::setenv("PELMAR_PLATFORM_RULES", "phone", 1);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  qmi_client_type own = nullptr;
  using Provoke = std::function<void()>;
  using Call = std::function<void(qmi_client_type)>;
  const Provoke indication = [this] { modem_.indicate(0, kNasId, 0xFF, 1); };
  const Provoke response = [&] { modem_.respond(begin_async(own), drx_response(1)); };
  const Provoke loss = [&] { begin_async(own), modem_.close(0); };
  const Provoke error = [&] { qmi_client_register_error_cb(own, on_error, this), modem_.close(0); };
  const Provoke notify = [this] { create_notifier(); };
  const Call send = [](auto handle) { get_drx(handle, 0); }, send_with_timeout = [](auto handle) { get_drx(handle); };
  const Call send_asynchronously = [this](auto handle) { send_async(handle); };
  const struct {
    Provoke provoke;
    Call call;
    const char* message;
  } cases[] = {
      {indication, send,
       "send_msg_sync in an indication callback of .* Send on another thread, or use qmi_client_send"},
      {response, send, "send_msg_sync in a response callback of .* Send on another thread, or use qmi_client_send"},
      {loss, send_with_timeout, "send_msg_sync in a response callback after the loss .* Send after the callback"},
      {loss, send_asynchronously, "send_msg_async in a response callback after the loss .* Send after the callback"},
      {indication, qmi_client_release, "release in an indication callback of .* Release the handle on another thread"},
      {response, qmi_client_release, "release in a response callback of .* Release the handle on another thread"},
      {error, qmi_client_release, "release in the error callback of .* Release the handle on another thread"},
      {notify, qmi_client_release, "release in the notify callback of .*0x03.* Release the handle on another thread"},
  };
  for (const auto& each : cases) {
    const auto break_rule = [&] {
      own = connect();
      on_callback_.set(each.call);
      each.provoke();
      std::this_thread::sleep_for(std::chrono::seconds(20));
    };
    EXPECT_EXIT(break_rule(), testing::KilledBySignal(SIGABRT), std::string("qmi_client_") + each.message);
  }
}

// The indications are sent by the clock, so that a slow machine sends as many during a callback.
TEST_F(ClientTest, PhoneRulesDropIndicationsBehindASlowCallbackButNoResponses) {
  ::setenv("PELMAR_PLATFORM_RULES", "phone", 1);
  constexpr uint16_t kCount = 300;
  const Bytes payload(10'672, 0x5A);
  const qmi_client_type handle = connect();
  on_callback_.set([](qmi_client_type) { std::this_thread::sleep_for(milliseconds(5)); });
  const auto start = Clock::now();
  for (uint16_t i = 0; i < kCount; ++i) {
    std::this_thread::sleep_until(start + milliseconds(i));
    modem_.indicate(0, kNasId, 0xFF, i, payload);
  }
  Exchange exchange = begin(handle);
  EXPECT_EQ(finish(exchange, 4), Outcome(0, 4)) << "behind all indications that were kept";
  const size_t arrived = events(0).size();
  EXPECT_GE(arrived, 19u) << "as many as the buffer holds";
  EXPECT_LT(arrived, kCount / 2u);
}

}  // namespace
}  // namespace pelmar::platform
