// Client handles against a scripted modem: connecting, sends, indications, and who waits for whom.
#include <gtest/gtest.h>
#include <syslog.h>

#include <latch>
#include <thread>

#include "client_fixture.h"

namespace pelmar::platform {
namespace {

TEST_F(ClientTest, ConnectsOnceTheModemHasTheServiceAndGivesAUsableIdInTime) {
  const auto gives_id = [this](uint8_t client) {
    modem_.on_control.set([=, this](int, uint16_t id, Bytes& tlvs) {
      if (id == ScriptedModem::kAllocate) tlvs.back() = client;
      modem_.client_ids.set({});
      return true;
    });
  };
  const auto is_slow = [](int, uint16_t, Bytes&) {
    std::this_thread::sleep_for(milliseconds(600));
    return true;
  };
  connect();
  const std::string socket = ::getenv("PELMAR_MODEM");
  const struct {
    const char* what;
    std::function<void()> prepare;
    int error;
  } cases[] = {
      {"no id but that of a live handle", [this] { modem_.client_id_limit = 1; }, QMI_CLIENT_ALLOC_FAILURE},
      {"an id of nobody", [&] { gives_id(0); }, QMI_CLIENT_ALLOC_FAILURE},
      {"the id of all", [&] { gives_id(0xFF); }, QMI_CLIENT_ALLOC_FAILURE},
      {"each response alone in time", [&] { modem_.on_control.set(is_slow); }, QMI_TIMEOUT_ERR},
      {"no modem", [] { ::setenv("PELMAR_MODEM", "@no-such-modem", 1); }, QMI_TIMEOUT_ERR},
      {"another service", [this] { modem_.services.set({0x11}); }, QMI_TIMEOUT_ERR},
  };
  for (const auto& each : cases) {
    ::setenv("PELMAR_MODEM", socket.c_str(), 1);
    modem_.on_control.set(nullptr);
    modem_.client_id_limit = 10;
    each.prepare();
    auto handle = reinterpret_cast<qmi_client_type>(this);
    const auto start = Clock::now();
    EXPECT_EQ(open(&handle, 50), each.error) << each.what;
    EXPECT_TRUE(each.error != QMI_TIMEOUT_ERR || Clock::now() - start >= milliseconds(50)) << each.what;
    EXPECT_EQ(handle, nullptr) << each.what;
  }
  auto late = std::async(std::launch::async, [this] {
    std::this_thread::sleep_for(milliseconds(50));
    modem_.services.set({kNasId});
  });
  connect(60'000);
  EXPECT_EQ(modem_.client_ids.get().size(), 1u);
}

TEST_F(ClientTest, RefusesWhatIsNoHandleOrNoMessage) {
  qmi_client_type handle = nullptr;
  EXPECT_EQ(open(&handle, 4, nullptr), QMI_CLIENT_PARAM_ERR);
  EXPECT_EQ(open(nullptr), QMI_CLIENT_PARAM_ERR);
  handle = connect();
  const qmi_client_type released = connect();
  qmi_client_release(released);
  for (const qmi_client_type bad : {qmi_client_type{nullptr}, reinterpret_cast<qmi_client_type>(this), released}) {
    EXPECT_EQ(get_drx(bad).first, QMI_CLIENT_INVALID_CLNT);
    EXPECT_EQ(qmi_client_release(bad), QMI_CLIENT_INVALID_CLNT);
    EXPECT_EQ(qmi_client_register_error_cb(bad, nullptr, nullptr), QMI_CLIENT_INVALID_CLNT);
    EXPECT_EQ(qmi_client_register_notify_cb(bad, nullptr, nullptr), QMI_CLIENT_INVALID_CLNT);
  }
  constexpr unsigned kLength = sizeof async_response_;
  const struct {
    unsigned id, request_length, response_length;
    int error;
  } sends[] = {
      {0x7777, 1, kLength, QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND},
      {0x10000 + kDrx, 1, kLength, QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND},
      {kDrx, 0, kLength, QMI_IDL_LIB_BUFFER_TOO_SMALL},
      {kDrx, 1, kLength - 1, QMI_IDL_LIB_BUFFER_TOO_SMALL},
  };
  uint8_t request = 0;
  void* const to = &async_response_;
  for (const auto& [id, size, room, error] : sends) {
    EXPECT_EQ(qmi_client_send_msg_sync(handle, id, &request, size, to, room, 1000), error);
    EXPECT_EQ(qmi_client_send_msg_async(handle, id, &request, size, to, room, on_response, this, nullptr), error);
  }
  EXPECT_EQ(modem_.requests.get().size(), 0u);
}

TEST_F(ClientTest, TakesOnlyItsOwnResponse) {
  const qmi_client_type handle = connect();
  Exchange late = begin(handle, 30);
  EXPECT_EQ(late.outcome.get(), Outcome(QMI_TIMEOUT_ERR, 0));
  Exchange exchange = begin(handle);
  EXPECT_NE(exchange.request.transaction, late.request.transaction);
  ScriptedRequest other_message = exchange.request, other_client = exchange.request;
  other_message.id = QMI_NAS_SET_AVOID_TRM_V01;
  ++other_client.client;
  modem_.send(0, kNasId, exchange.request.client, {4, 0, 0});  // no message
  for (const ScriptedRequest& foreign : {late.request, other_message, other_client}) {
    modem_.respond(foreign, drx_response(1));
  }
  EXPECT_EQ(finish(exchange, 4), Outcome(0, 4));

  Bytes cut = message(2, 0, kDrx, drx_response(5));
  cut.resize(cut.size() - 7);  // by a whole TLV, which the header still counts
  for (auto [response, error] : {std::pair(cut, QMI_IDL_LIB_LENGTH_INCONSISTENCY),
                                 std::pair(message(2, 0, kDrx, {}), QMI_IDL_LIB_MISSING_TLV)}) {
    Exchange broken = begin(handle);
    response[1] = static_cast<uint8_t>(broken.request.transaction);
    modem_.send(0, kNasId, broken.request.client, response);
    EXPECT_EQ(broken.outcome.get().first, error);
  }
}

TEST_F(ClientTest, ATimeoutBehindAnUnfinishedMessageEndsTheConnection) {
  const qmi_client_type handle = connect_with_error_callback();
  modem_.server.send(0, {0x01, 12, 1, 0x80, kNasId, 1, 4, 0, 0, 1, 0, 0, 0});  // 256 bytes more are to come
  EXPECT_EQ(get_drx(handle, 500).first, QMI_TIMEOUT_ERR);
  // A machine that is slow to deliver the bytes leaves the end to a later time-out.
  int error = QMI_TIMEOUT_ERR;
  while (error == QMI_TIMEOUT_ERR) error = get_drx(handle, 500).first;
  EXPECT_EQ(error, QMI_SERVICE_ERR);
  EXPECT_EQ(events(1), (Events{"error -2"}));
}

TEST_F(ClientTest, SendersGetTheirOwnResponsesInAnyOrder) {
  const qmi_client_type handle = connect();
  for (const size_t first : {size_t{0}, size_t{1}}) {
    Exchange exchanges[] = {begin(handle), begin(handle)};
    EXPECT_EQ(begin(handle, 500).outcome.get().first, QMI_TIMEOUT_ERR) << "a sender that does not read has its own";
    for (const size_t i : {first, 1 - first}) EXPECT_EQ(finish(exchanges[i], static_cast<uint8_t>(i)), Outcome(0, i));
  }
}

TEST_F(ClientTest, IndicationsAndResponsesComeInOrderOnAnotherThread) {
  const qmi_client_type handle = connect();
  qmi_txn_handle transaction = nullptr;
  ASSERT_EQ(send_async(handle, &transaction), QMI_NO_ERR);
  const ScriptedRequest async = modem_.receive();
  EXPECT_EQ(reinterpret_cast<uintptr_t>(transaction), async.transaction);
  EXPECT_NE(async.transaction, 0);

  Exchange sync = begin(handle, 0);
  modem_.indicate(0, kNasId, async.client, 1, {1, 2, 3});
  modem_.indicate(0, kNasId, 0xFF, 2);
  modem_.indicate(0, 0x11, async.client, 99);
  modem_.respond(async, drx_response(77));
  EXPECT_EQ(finish(sync, 78), Outcome(0, 78));
  modem_.indicate(0, kNasId, async.client, 3);
  EXPECT_EQ(events(4), (Events{"indication 1 (3)", "indication 2 (0)", "response 137 0 77", "indication 3 (0)"}));
}

TEST_F(ClientTest, ACallbackMaySendAndHoldsUpNobodyElse) {
  const qmi_client_type slow = connect(), other = connect();
  std::latch go_on(1);
  on_callback_.set([&](qmi_client_type handle) {
    const auto [error, drx] = get_drx(handle);
    note("sync in callback " + std::to_string(error) + " " + std::to_string(drx));
    go_on.wait();
  });
  modem_.indicate(0, kNasId, 0xFF, 1);
  const ScriptedRequest request = modem_.receive();
  modem_.indicate(0, kNasId, 0xFF, 2);
  modem_.respond(request, drx_response(5));
  EXPECT_EQ(events(2).back(), "sync in callback 0 5");
  on_callback_.set(nullptr);

  for (const qmi_client_type handle : {slow, other}) {  // while the callback goes on
    Exchange exchange = begin(handle);
    EXPECT_EQ(finish(exchange, 6), Outcome(0, 6));
  }
  modem_.indicate(1, kNasId, 0xFF, 3);
  EXPECT_EQ(events(3).back(), "indication 3 (0)");
  go_on.count_down();
  EXPECT_EQ(events(4).back(), "indication 2 (0)");
}

TEST_F(ClientTest, TransactionsUnderWayAreBoundedAndHaveNumbersOfTheirOwn) {
  constexpr size_t kMost = 1024;
  const qmi_client_type handle = connect();
  std::set<uint16_t> numbers = {0, begin_async(handle).transaction};
  for (size_t count = 0; count < UINT16_MAX - kMost / 2; ++count) {  // numbers of requests that cannot be encoded
    ASSERT_EQ(qmi_client_send_msg_sync(handle, kDrx, nullptr, 0, &async_response_, sizeof async_response_, 1000),
              QMI_IDL_LIB_BUFFER_TOO_SMALL);
  }
  std::vector<ScriptedRequest> requests;
  int error = QMI_NO_ERR;
  while (numbers.size() < 1 + 2 * kMost && (error = send_async(handle)) == QMI_NO_ERR) {
    requests.push_back(modem_.receive());
    EXPECT_TRUE(numbers.insert(requests.back().transaction).second) << requests.back().transaction;
  }
  EXPECT_EQ(error, QMI_XPORT_BUSY_ERR);
  ASSERT_EQ(requests.size(), kMost - 1);
  EXPECT_EQ(*numbers.rbegin(), UINT16_MAX) << "the numbers went round, up to the last";

  Exchange sync = begin(handle);
  EXPECT_EQ(finish(sync, 1), Outcome(0, 1)) << "who waits for a response finds room";
  modem_.respond(requests[7], drx_response(2));
  events(1);
  EXPECT_EQ(send_async(handle), QMI_NO_ERR);
  EXPECT_EQ(send_async(handle), QMI_XPORT_BUSY_ERR);
}

TEST_F(ClientTest, AModemThatReadsNothingDoesNotHoldASendForEver) {
  const qmi_client_type handle = connect();
  nas::SetLteCellLockRequest lock{};
  lock.lock_count = nas::kMaxCellLocks;
  nas::PlainResponse response{};
  std::unique_lock reading(modem_.reading);
  for (const auto start = Clock::now(); Clock::now() - start < milliseconds(300);) {
    ASSERT_EQ(qmi_client_send_msg_sync(handle, QMI_NAS_SET_LTE_CELL_LOCK_V01, &lock, sizeof lock, &response,
                                       sizeof response, 1),
              QMI_TIMEOUT_ERR);
    ASSERT_LT(Clock::now() - start, milliseconds(20'000));
  }
  reading.unlock();
  Exchange exchange = begin(handle);
  for (; exchange.request.id != kDrx; exchange.request = modem_.receive()) {
    ASSERT_EQ(exchange.request.tlvs.size(), 3u + 1 + 60 * 6) << "the stream stays whole";
  }
  EXPECT_EQ(finish(exchange, 1), Outcome(0, 1));
}

// They pile up behind a slow callback while a sender reads the connection.
TEST_F(ClientTest, TheOldestIndicationsAreDroppedWhereTooManyWait) {
  constexpr uint16_t kLast = 1300;
  const Bytes payload(60'000, 0x5A);  // the bound is below what kLast of them have
  const auto name = [](size_t id) { return "indication " + std::to_string(id) + " (60000)"; };
  ::openlog("platform_tests", LOG_PERROR, LOG_USER);
  testing::internal::CaptureStderr();
  const qmi_client_type handle = connect();
  std::latch go_on(1);
  on_callback_.set([&](qmi_client_type) { go_on.wait(); });
  const ScriptedRequest async = begin_async(handle);
  modem_.indicate(0, kNasId, 0xFF, 1, payload);
  events(1);  // its callback holds the handle's thread

  Exchange sync = begin(handle, 0);
  modem_.respond(async, drx_response(1));
  for (uint16_t id = 2; id <= kLast; ++id) modem_.indicate(0, kNasId, 0xFF, id, payload);
  EXPECT_EQ(finish(sync, 4), Outcome(0, 4)) << "the response behind them comes through";
  go_on.count_down();

  EXPECT_TRUE(events_.comes_to([&](const Events& events) { return events.back() == name(kLast); }));
  const Events seen = events(0);
  const std::string log = testing::internal::GetCapturedStderr();
  ASSERT_GT(seen.size(), 1000u) << "the bound is generous";
  ASSERT_LT(seen.size(), 1u + kLast);
  EXPECT_EQ(seen[0], name(1));
  EXPECT_EQ(seen[1], "response 137 0 1") << "no response is dropped";
  const size_t first = kLast - (seen.size() - 3);
  for (size_t i = 2; i < seen.size(); ++i) ASSERT_EQ(seen[i], name(first + i - 2));
  EXPECT_NE(log.find("0x03"), std::string::npos) << log;
  EXPECT_NE(log.find(", " + std::to_string(first - 2) + " indications were dropped"), std::string::npos) << log;
}

}  // namespace
}  // namespace pelmar::platform
