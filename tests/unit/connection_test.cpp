// What the four service connections have in common: attempts, exchanges, indications that bring no event, the release.
#include "connection_test.h"

#include <cerrno>

#include "qmi_idl_lib_internal.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;

using ServiceConnection = ConnectionTest;

TEST_P(ServiceConnection, TriesTenTimesAtMost) {
  for (const int failures : {0, 1, 9, 10}) {
    SCOPED_TRACE(failures);
    int attempts = 0, waits = 0;
    on_call["init_instance"] = [&](const Call&) { return attempts++ < failures ? QMI_TIMEOUT_ERR : 0; };
    // Signals that cut the pauses short change nothing: the rest of each is waited for.
    const bool interrupted = failures == 9;
    on_call["sleep"] = [&](const Call&) {
      if (interrupted) errno = EINTR;
      return 0;
    };
    on_call["clock_nanosleep"] = [&](const Call&) { return ++waits % 2 == 1 ? EINTR : 0; };
    errno = EINTR;  // from something earlier
    // A binding that the modem refuses changes nothing, and neither does a registration without response.
    on_send = [](const Call& call) { return Outcome(call.msg_id == 3 ? -3 : 0, header(call.msg_id == 0x0045, 48)); };
    const bool up = failures < 10;
    start();
    EXPECT_EQ(connection_.open(on_event), up);
    EXPECT_EQ(statuses(), (Statuses{1, up ? 3U : 2U}));
    EXPECT_EQ(calls(), attempt_calls(failures, interrupted));
    EXPECT_EQ(connection_.handle != nullptr && is_open(connection_.handle), up);
    EXPECT_EQ(connection_.connected, up);
    connection_.release();
  }
  if (connection_.attempt == nullptr) return;
  on_call["init_instance"] = returns(QMI_TIMEOUT_ERR);
  start();
  EXPECT_FALSE(connection_.attempt());
  EXPECT_THAT(statuses(), IsEmpty()) << "the attempts alone report nothing";
}

TEST_P(ServiceConnection, ConnectsAgainOnlyAfterANewStart) {
  EXPECT_TRUE(connection_.release()) << "without a connection";
  EXPECT_THAT(calls(), IsEmpty());
  start();
  const qmi_client_type handle = open();
  EXPECT_TRUE(connection_.release());
  EXPECT_EQ(statuses(), Statuses{0});
  EXPECT_THAT(calls(), ElementsAre(Call{.name = "release", .handle = handle}));
  EXPECT_FALSE(is_open(handle));
  EXPECT_TRUE(connection_.is_clear());
  EXPECT_FALSE(connection_.open(on_event));
  start();
  EXPECT_TRUE(connection_.open(on_event));
}

// The end of an asynchronous exchange goes to its callback, and both of its blocks are freed.
TEST_P(ServiceConnection, SendsAndEndsExchanges) {
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
  const qmi_client_type handle = open();
  on_send = returns(QMI_XPORT_BUSY_ERR);
  EXPECT_EQ(send(), QMI_XPORT_BUSY_ERR);
  for (const int code : {0, int{QMI_TIMEOUT_ERR}}) {
    EXPECT_EQ(send_async(hydra_malloc_adv(8, "test", 0), callback_record(callback, nullptr)), 0);
    complete_send(header(0, 0), code);
    EXPECT_THAT(live_blocks(), IsEmpty());
  }
  EXPECT_THAT(results, ElementsAre(MODEM_API_RESP_END, MODEM_API_ERR_TIMEOUT));
  const Call asynchronous = {"send_msg_async", handle, 0x0089, request, 8};
  EXPECT_THAT(calls(),
              ElementsAre(Call{"send_msg_sync", handle, 0x0089, request, 8, 30000}, asynchronous, asynchronous));
  expect_golden_log();
}

TEST_P(ServiceConnection, DropsAnIndicationThatIsNoEvent) {
  // A service that has one indication more than the library handles, 0x0777.
  const qmi_idl_service_object_type original = vs_get_service_object_internal_v01(1, 2, 6);
  std::vector<qmi_idl_service_message_table_entry> table(original->msgid_to_msg[QMI_IDL_INDICATION],
                                                         original->msgid_to_msg[QMI_IDL_INDICATION] + 4);
  table.push_back({0x0777, table.back().message_table_message_id, 4});
  qmi_idl_service_object service = *original;
  service.n_msgs[QMI_IDL_INDICATION] = 5;
  service.msgid_to_msg[QMI_IDL_INDICATION] = table.data();
  connection_.service_object = &service;
  const qmi_client_type handle = open();
  // Without a size, with bytes that cannot be decoded, unknown.
  for (const auto& [id, wire] : {std::pair{0x0778U, ""}, {0x0204U, "01 0100 B1"}, {0x0777U, "01 0100 B1"}}) {
    EXPECT_TRUE(indicate(handle, id, bytes(wire)));
  }
  start();  // what another client of the process does: there is no event callback any more
  EXPECT_TRUE(indicate(handle, 0x0601, bytes("01 0100 B1")));
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(live_blocks(), IsEmpty());
  expect_golden_log();
}

INSTANTIATE_TEST_SUITE_P(, ServiceConnection, testing::ValuesIn(kConnections),
                         [](const auto& row) { return row.param.name; });

}  // namespace
