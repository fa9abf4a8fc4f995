// Client handles against a scripted modem: connecting, sends, indications, and who waits for whom.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>

#include "client_fixture.h"

namespace pelmar::platform {
namespace {

TEST_F(ClientTest, ConnectsWhereTheServiceIsThere) {
  qmi_client_type handle = kStale;
  EXPECT_EQ(qmi_client_init_instance(nullptr, 0xFFFF, nullptr, nullptr, nullptr, 4, &handle), QMI_CLIENT_PARAM_ERR);
  EXPECT_EQ(qmi_client_init_instance(kNas, 0xFFFF, nullptr, nullptr, nullptr, 4, nullptr), QMI_CLIENT_PARAM_ERR);

  modem_.offer({0x11});
  const auto begin = Clock::now();
  EXPECT_EQ(qmi_client_init_instance(kNas, 0xFFFF, nullptr, nullptr, nullptr, 50, &handle), QMI_TIMEOUT_ERR);
  EXPECT_GE(Clock::now() - begin, milliseconds(50));
  EXPECT_EQ(handle, nullptr);

  auto late = std::async(std::launch::async, [this] {
    std::this_thread::sleep_for(milliseconds(50));
    modem_.offer({kNasId});
  });
  EXPECT_EQ(qmi_client_init_instance(kNas, 0xFFFF, nullptr, nullptr, nullptr, 60'000, &handle), QMI_NO_ERR);
  EXPECT_EQ(modem_.client_ids().size(), 1u);
  EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
  EXPECT_TRUE(modem_.comes_to_hold_no_ids());

  for (const uint8_t nobodys : {uint8_t{0}, uint8_t{0xFF}}) {
    modem_.set(&ScriptedModem::Behaviour::void_client_id, std::optional(nobodys));
    EXPECT_EQ(qmi_client_init_instance(kNas, 0xFFFF, nullptr, nullptr, nullptr, 4, &handle), QMI_CLIENT_ALLOC_FAILURE);
  }
  modem_.set(&ScriptedModem::Behaviour::void_client_id, std::optional<uint8_t>());
  modem_.set(&ScriptedModem::Behaviour::client_id_limit, size_t{0});
  EXPECT_EQ(qmi_client_init_instance(kNas, 0xFFFF, nullptr, nullptr, nullptr, 4, &handle), QMI_CLIENT_ALLOC_FAILURE);
  ::setenv("PELMAR_QMI_SOCKET", "@no-such-modem", 1);
  EXPECT_EQ(qmi_client_init_instance(kNas, 0xFFFF, nullptr, nullptr, nullptr, 4, &handle), QMI_TIMEOUT_ERR);
}

// Each response alone would come in time.
TEST_F(ClientTest, OneDeadlineBoundsAllOfAnOpen) {
  modem_.set(&ScriptedModem::Behaviour::control_delay, milliseconds(600));
  qmi_client_type handle = nullptr;
  EXPECT_EQ(qmi_client_init_instance(kNas, 0xFFFF, nullptr, nullptr, nullptr, 4, &handle), QMI_TIMEOUT_ERR);
}

TEST_F(ClientTest, RefusesWhatIsNoHandleOrNoMessage) {
  const qmi_client_type handle = connect();
  const qmi_client_type released = connect();
  qmi_client_release(released);
  uint8_t request = 0;
  nas::GetDrxResponse response{};
  for (const qmi_client_type bad : {qmi_client_type{nullptr}, kStale, released}) {
    EXPECT_EQ(get_drx(bad, response), QMI_CLIENT_INVALID_CLNT);
    EXPECT_EQ(qmi_client_release(bad), QMI_CLIENT_INVALID_CLNT);
    EXPECT_EQ(qmi_client_register_error_cb(bad, nullptr, nullptr), QMI_CLIENT_INVALID_CLNT);
    EXPECT_EQ(qmi_client_register_notify_cb(bad, nullptr, nullptr), QMI_CLIENT_INVALID_CLNT);
  }
  const auto send = [&](unsigned id, unsigned request_length, unsigned response_length) {
    return qmi_client_send_msg_sync(handle, id, &request, request_length, &response, response_length, 1000);
  };
  EXPECT_EQ(send(0x7777, 1, sizeof response), QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND);
  EXPECT_EQ(send(0x10089, 1, sizeof response), QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND);
  EXPECT_EQ(send(kDrx, 0, sizeof response), QMI_IDL_LIB_BUFFER_TOO_SMALL);
  EXPECT_EQ(send(kDrx, 1, sizeof response - 1), QMI_IDL_LIB_BUFFER_TOO_SMALL);
  EXPECT_EQ(modem_.request_count(), 0u);
}

TEST_F(ClientTest, PutsARequestOnTheWireAndDecodesItsResponse) {
  const qmi_client_type handle = connect();
  auto answer = std::async(std::launch::async, [this] {
    const ScriptedRequest request = modem_.receive();
    modem_.respond(request);
    return request;
  });
  nas::BindSubscriptionRequest bind = {1};
  nas::PlainResponse response;
  std::memset(&response, 0xEE, sizeof response);
  EXPECT_EQ(qmi_client_send_msg_sync(handle, QMI_NAS_BIND_SUBSCRIPTION_V01, &bind, sizeof bind, &response,
                                     sizeof response, 0),
            QMI_NO_ERR);
  EXPECT_EQ(response.header.result, 0u);
  const ScriptedRequest request = answer.get();
  EXPECT_EQ(request.service, kNasId);
  EXPECT_EQ(request.id, QMI_NAS_BIND_SUBSCRIPTION_V01);
  EXPECT_NE(request.transaction, 0);
  EXPECT_EQ(request.tlvs, (Bytes{0x01, 1, 0, 1}));
}

TEST_F(ClientTest, NumbersItsTransactionsFromOneToTheLast) {
  const qmi_client_type handle = connect();
  nas::SetLteCellLockRequest refused{};  // takes a number and is not sent
  refused.lock_count = nas::kMaxCellLocks + 1;
  for (int i = 0; i < 65'534; ++i) {
    ASSERT_EQ(qmi_client_send_msg_async(handle, QMI_NAS_SET_LTE_CELL_LOCK_V01, &refused, sizeof refused,
                                        &async_responses_[0], sizeof async_responses_[0], on_response, this, nullptr),
              QMI_IDL_LIB_ARRAY_TOO_BIG);
  }
  for (const uint16_t number : {65'535, 1}) {
    auto answer = sender(handle);
    const ScriptedRequest request = modem_.receive();
    EXPECT_EQ(request.transaction, number);
    modem_.respond(request, ScriptedModem::drx_response(number));
    EXPECT_EQ(answer.get(), (Outcome{QMI_NO_ERR, number}));
  }
}

TEST_F(ClientTest, DropsLateAndForeignResponses) {
  const qmi_client_type handle = connect();
  nas::GetDrxResponse response{};
  EXPECT_EQ(get_drx(handle, response, 30), QMI_TIMEOUT_ERR);
  const ScriptedRequest late = modem_.receive();

  auto next = sender(handle);
  ScriptedRequest request = modem_.receive();
  EXPECT_NE(request.transaction, late.transaction);
  modem_.respond(late, ScriptedModem::drx_response(1));
  ScriptedRequest wrong = request;
  wrong.id = QMI_NAS_SET_AVOID_TRM_V01;
  modem_.respond(wrong, ScriptedModem::drx_response(2));
  wrong = request;
  wrong.client = static_cast<uint8_t>(request.client + 1);
  modem_.respond(wrong, ScriptedModem::drx_response(3));
  modem_.respond(request, ScriptedModem::drx_response(4));
  EXPECT_EQ(next.get(), (Outcome{QMI_NO_ERR, 4}));
}

TEST_F(ClientTest, TellsOfAResponseThatIsCut) {
  const qmi_client_type handle = connect();
  const auto answered_with = [&](const Bytes& message) {
    auto sent = sender(handle);
    const ScriptedRequest request = modem_.receive();
    Bytes bytes = message;
    bytes[1] = static_cast<uint8_t>(request.transaction);
    modem_.send_raw(0, ScriptedModem::frame(request.service, request.client, bytes));
    return sent.get().first;
  };
  Bytes cut = ScriptedModem::message(2, 0, kDrx, ScriptedModem::drx_response(5));
  cut.resize(cut.size() - 3);
  EXPECT_EQ(answered_with(cut), QMI_IDL_LIB_LENGTH_INCONSISTENCY);
  EXPECT_EQ(answered_with(ScriptedModem::message(2, 0, kDrx, {})), QMI_IDL_LIB_MISSING_TLV);
}

TEST_F(ClientTest, ATimeoutBehindAnUnfinishedMessageEndsTheConnection) {
  const qmi_client_type handle = connect();
  EXPECT_EQ(qmi_client_register_error_cb(handle, on_error, this), QMI_NO_ERR);
  Bytes unfinished = ScriptedModem::frame(kNasId, 1, ScriptedModem::message(4, 0, 1, {}));
  unfinished[2] = 1;  // 256 bytes more
  modem_.send_raw(0, unfinished);
  nas::GetDrxResponse response{};
  EXPECT_EQ(get_drx(handle, response, 500), QMI_TIMEOUT_ERR);
  // A machine that is slow to deliver the bytes leaves the end to a later time-out.
  int error = QMI_TIMEOUT_ERR;
  while (error == QMI_TIMEOUT_ERR) error = get_drx(handle, response, 500);
  EXPECT_EQ(error, QMI_SERVICE_ERR);
  EXPECT_EQ(events(1), (std::vector<std::string>{"error -2"}));
}

TEST_F(ClientTest, SendersGetTheirOwnResponsesInAnyOrder) {
  const qmi_client_type handle = connect();
  for (const bool first_comes_first : {true, false}) {
    auto first = sender(handle);
    const ScriptedRequest request1 = modem_.receive();
    auto second = sender(handle);
    const ScriptedRequest request2 = modem_.receive();
    auto third = sender(handle, 500);
    const ScriptedRequest request3 = modem_.receive();
    EXPECT_EQ(third.get().first, QMI_TIMEOUT_ERR) << "a sender that does not read has its own time-out";
    modem_.respond(first_comes_first ? request1 : request2, ScriptedModem::drx_response(first_comes_first ? 1 : 2));
    EXPECT_EQ((first_comes_first ? first : second).get().second, first_comes_first ? 1u : 2u);
    modem_.respond(first_comes_first ? request2 : request1, ScriptedModem::drx_response(first_comes_first ? 2 : 1));
    EXPECT_EQ((first_comes_first ? second : first).get().second, first_comes_first ? 2u : 1u);
  }
}

TEST_F(ClientTest, IndicationsAndResponsesComeInOrderOnAnotherThread) {
  const qmi_client_type handle = connect();
  nas::GetDrxResponse async_response{};
  uint8_t empty = 0;
  qmi_txn_handle transaction = nullptr;
  ASSERT_EQ(qmi_client_send_msg_async(handle, kDrx, &empty, 1, &async_response, sizeof async_response, on_response,
                                      this, &transaction),
            QMI_NO_ERR);
  const ScriptedRequest async_request = modem_.receive();
  EXPECT_EQ(reinterpret_cast<uintptr_t>(transaction), async_request.transaction);

  auto sync = sender(handle);
  const ScriptedRequest request = modem_.receive();
  modem_.indicate(0, kNasId, request.client, 1, {1, 2, 3});
  modem_.indicate(0, kNasId, 0xFF, 2, {});
  modem_.indicate(0, 0x11, request.client, 99, {});
  modem_.respond(async_request, ScriptedModem::drx_response(77));
  modem_.respond(request, ScriptedModem::drx_response(78));
  modem_.indicate(0, kNasId, request.client, 3, {});
  EXPECT_EQ(sync.get().second, 78u);
  EXPECT_EQ(events(4),
            (std::vector<std::string>{"indication 1 (3)", "indication 2 (0)", "response 137 0", "indication 3 (0)"}));
  EXPECT_EQ(async_response.drx, 77u);
}

TEST_F(ClientTest, ACallbackMaySendAndHoldsUpNobodyElse) {
  const qmi_client_type slow = connect();
  const qmi_client_type other = connect();
  std::promise<void> go_on;
  set_on_indication([&](qmi_client_type handle) {
    nas::GetDrxResponse response{};
    const int error = get_drx(handle, response);
    note("sync in callback " + std::to_string(error) + " " + std::to_string(response.drx));
    go_on.get_future().wait();
  });
  modem_.indicate(0, kNasId, 0xFF, 1, {});
  ScriptedRequest request = modem_.receive();
  modem_.indicate(0, kNasId, 0xFF, 2, {});
  modem_.respond(request, ScriptedModem::drx_response(5));
  EXPECT_EQ(events(2).back(), "sync in callback 0 5");
  set_on_indication(nullptr);

  for (const qmi_client_type handle : {slow, other}) {  // while the callback goes on
    auto sent = sender(handle);
    modem_.respond(modem_.receive(), ScriptedModem::drx_response(6));
    EXPECT_EQ(sent.get(), (Outcome{QMI_NO_ERR, 6}));
  }
  modem_.indicate(1, kNasId, 0xFF, 3, {});
  EXPECT_EQ(events(3).back(), "indication 3 (0)");
  go_on.set_value();
  EXPECT_EQ(events(4).back(), "indication 2 (0)");
}

TEST_F(ClientTest, TransactionsUnderWayAreBoundedAndHaveNumbersOfTheirOwn) {
  constexpr size_t kMost = 1024;
  const qmi_client_type handle = connect();
  const auto burn_number = [&] {  // on a request that cannot be encoded
    nas::GetDrxResponse response{};
    return qmi_client_send_msg_sync(handle, kDrx, nullptr, 0, &response, sizeof response, 1000);
  };
  nas::GetDrxResponse response{};
  ASSERT_EQ(send_async(handle, response, this), QMI_NO_ERR);
  const ScriptedRequest first = modem_.receive();
  for (size_t count = 0; count < UINT16_MAX - kMost / 2; ++count) {
    ASSERT_EQ(burn_number(), QMI_IDL_LIB_BUFFER_TOO_SMALL);
  }
  std::set<uint16_t> numbers = {0, first.transaction};
  std::vector<ScriptedRequest> requests;
  int error = QMI_NO_ERR;
  while (numbers.size() < 1 + 2 * kMost && (error = send_async(handle, response, this)) == QMI_NO_ERR) {
    requests.push_back(modem_.receive());
    EXPECT_TRUE(numbers.insert(requests.back().transaction).second) << requests.back().transaction;
  }
  EXPECT_EQ(error, QMI_XPORT_BUSY_ERR);
  ASSERT_EQ(requests.size(), kMost - 1);
  EXPECT_GT(requests.front().transaction, requests.back().transaction) << "the numbers went round";

  auto sync = sender(handle);
  modem_.respond(modem_.receive(), ScriptedModem::drx_response(1));
  EXPECT_EQ(sync.get(), (Outcome{QMI_NO_ERR, 1})) << "who waits for a response finds room";
  modem_.respond(requests[7], ScriptedModem::drx_response(2));
  events(1);
  EXPECT_EQ(send_async(handle, response, this), QMI_NO_ERR);
  EXPECT_EQ(send_async(handle, response, this), QMI_XPORT_BUSY_ERR);
}

TEST_F(ClientTest, AModemThatReadsNothingDoesNotHoldASendForEver) {
  const qmi_client_type handle = connect();
  nas::SetLteCellLockRequest lock{};
  lock.lock_count = nas::kMaxCellLocks;
  nas::PlainResponse response{};
  modem_.set(&ScriptedModem::Behaviour::reads, false);
  int error = QMI_NO_ERR;
  size_t sent = 0;
  const auto begin = Clock::now();
  for (; Clock::now() - begin < milliseconds(300); ++sent) {
    error = qmi_client_send_msg_sync(handle, QMI_NAS_SET_LTE_CELL_LOCK_V01, &lock, sizeof lock, &response,
                                     sizeof response, 1);
    ASSERT_EQ(error, QMI_TIMEOUT_ERR);
  }
  EXPECT_LT(Clock::now() - begin, milliseconds(20'000));
  modem_.set(&ScriptedModem::Behaviour::reads, true);
  auto next = sender(handle);
  for (ScriptedRequest request = modem_.receive();; request = modem_.receive()) {
    if (request.id != kDrx) {
      ASSERT_EQ(request.tlvs.size(), 3u + 1 + 60 * 6) << "the stream stays whole";
      continue;
    }
    modem_.respond(request, ScriptedModem::drx_response(1));
    break;
  }
  EXPECT_EQ(next.get(), (Outcome{QMI_NO_ERR, 1}));
}

TEST_F(ClientTest, ManySendersShareOneHandle) {
  const qmi_client_type handle = connect();
  modem_.set(&ScriptedModem::Behaviour::echoes, true);
  constexpr int kSenders = 4, kSends = 200;
  std::atomic<int> good{0};
  std::vector<std::future<void>> senders;
  for (int i = 0; i < kSenders; ++i) {
    senders.push_back(std::async(std::launch::async, [&, i] {
      nas::SetAvoidTrmRequest request = {static_cast<uint8_t>(i)};
      nas::PlainResponse response{};
      for (int n = 0; n < kSends; ++n) {
        if (n % 8 == 7) {
          if (qmi_client_send_msg_async(handle, QMI_NAS_SET_AVOID_TRM_V01, &request, 1, &async_responses_[i],
                                        sizeof response, on_response, this, nullptr) == 0) {
            ++good;
          }
        } else if (qmi_client_send_msg_sync(handle, QMI_NAS_SET_AVOID_TRM_V01, &request, 1, &response, sizeof response,
                                            60'000) == 0) {
          ++good;
        }
      }
    }));
  }
  for (auto& one : senders) one.get();
  EXPECT_EQ(good, kSenders * kSends);
  EXPECT_EQ(events(kSenders * kSends + kSenders * kSends / 8).size(), kSenders * kSends * 9u / 8);
}

}  // namespace
}  // namespace pelmar::platform
