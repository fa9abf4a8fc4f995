// The vendor-specific connection: its attempts, its end, and its indications.
#include "vs_client.h"

#include "golden_log.h"
#include "qmi_idl_lib_internal.h"

namespace {

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;
using Statuses = std::vector<uint32_t>;

Statuses statuses;

void on_status(uint32_t type, uint32_t status) {
  EXPECT_EQ(type, MODEM_API_CLIENT_VS);
  statuses.push_back(status);
}

class VsClient : public Golden<LibraryTest> {
 protected:
  static void prepare() {
    vs_init();
    vs_client_set_operational_status_callback(on_status);
    forget();
    statuses.clear();
    sleeps.clear();
  }
  static void connect() {
    prepare();
    ASSERT_TRUE(vs_client_init(on_event));
    forget();
    statuses.clear();
  }
};

TEST_F(VsClient, ConnectsWithinTenAttempts) {
  for (const int failures : {0, 2, 9, 10}) {
    SCOPED_TRACE(failures);
    prepare();
    on_init_instance = [&, attempt = 0](int) mutable { return attempt++ < failures ? QMI_TIMEOUT_ERR : 0; };
    const bool connects = failures < 10;
    EXPECT_EQ(vs_client_init(on_event), connects);
    EXPECT_EQ(statuses, (Statuses{1, connects ? 3U : 2U}));
    EXPECT_EQ(sleeps, std::vector<unsigned>(std::min<size_t>(failures, 9), 1));
    std::vector<Call> expected(std::min(failures + 1, 10), {.name = "init_instance", .msg_id = 65535, .timeout = 4});
    if (connects) expected.push_back({.name = "register_error_cb", .handle = last_connection()});
    EXPECT_EQ(calls(), expected);
    EXPECT_EQ(vs_client_info.client_handle, connects ? last_connection() : nullptr);
    EXPECT_EQ(vs_client_info.connected, connects);
  }
}

TEST_F(VsClient, ConnectsAgainOnlyAfterANewStart) {
  EXPECT_TRUE(vs_client_release()) << "without a connection";
  EXPECT_THAT(calls(), IsEmpty());
  connect();
  const qmi_client_type handle = vs_client_info.client_handle;
  EXPECT_TRUE(vs_client_release());
  EXPECT_EQ(statuses, Statuses{0});
  EXPECT_THAT(call_names(), ElementsAre("release"));
  EXPECT_FALSE(is_open(handle));
  const vs_client_context zero = {};
  EXPECT_EQ(std::memcmp(&vs_client_info, &zero, sizeof(zero)), 0);

  forget();
  EXPECT_FALSE(vs_client_init(on_event));
  EXPECT_EQ(call_names(), Lines(10, "init_instance"));
  const auto service = vs_get_service_object_internal_v01(1, 2, 6);
  EXPECT_EQ(vs_init(), service);
  EXPECT_TRUE(vs_client_init(on_event));
}

TEST_F(VsClient, ReturnsTheFrameworksCodesUnchanged) {
  uint8_t bytes[8];
  const auto expect_codes = [&](int32_t sync, int32_t async) {
    EXPECT_EQ(vs_client_send_msg_sync(7, bytes, 8, bytes, 8), sync);
    EXPECT_EQ(vs_client_send_msg_async(7, bytes, 8, bytes, 8, nullptr), async);
  };
  expect_codes(QMI_CLIENT_INVALID_CLNT, QMI_CLIENT_INVALID_CLNT);
  connect();
  on_send = [](const Call&) { return Outcome{.code = QMI_XPORT_BUSY_ERR}; };
  on_send_async = [](const Call&) { return QMI_CLIENT_TRANSPORT_ERR; };
  expect_codes(QMI_XPORT_BUSY_ERR, QMI_CLIENT_TRANSPORT_ERR);
}

TEST_F(VsClient, StaysAsItIsWhenTheServiceGoes) {
  connect();
  lose_service(last_connection());
  EXPECT_THAT(statuses, IsEmpty());
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_EQ(vs_client_info.client_handle, last_connection());
}

// --- indications ---

TEST_F(VsClient, TurnsEveryIndicationIntoItsEvent) {
  connect();
  const struct {
    unsigned id;
    std::string wire;
    Event event;
  } indications[] = {
      {0x0004, "01 0400 A1A2A3A4 02 0100 00 03 0100 07", {2, structure(8, "0:A1A2A3A4 5:01")}},
      {0x0004, "01 0400 A1A2A3A4 02 0100 80 03 0100 00", {2, structure(8, "0:A1A2A3A4 4:01")}},
      {0x0203, "01 0400 A1A2A3A4 02 0100 00", {3, structure(10696, "0:A1A2A3A4 10692:FFFFFFFF")}},
      {0x0203,
       "01 0400 A1A2A3A4 02 1700 02 0102 0304 05060708 0200 D1D2 1112 1314 15161718 0000"
       "10 0C00 01 2122 2324 25262728 0100 D3 11 0400 E1E2E3E4",
       {3, structure(10696,
                     "0:A1A2A3A4 4:05060708 8:D1D2 708:0200000001020304 716:15161718 1424:11121314 7124:02 "
                     "7128:25262728 7132:D3 7832:0100000021222324 10688:01 10692:E1E2E3E4")}},
      {0x0204,
       "01 0400 A1A2A3A4 02 0300 02 D1D2 03 0200 C1C2 04 0200 C3C4",
       {4, structure(412, "0:A1A2A3A4 4:D1 8:D2 404:02 408:C1C2C3C4")}},
      {0x0601, "01 0100 B1", {5, {0xB1}}},
  };
  for (const auto& indication : indications) {
    events.clear();
    indicate(last_connection(), indication.id, bytes(indication.wire));
    EXPECT_EQ(events, std::vector<Event>{indication.event});
    EXPECT_THAT(live_blocks(), IsEmpty());
  }
}

// Counts and lengths that no codec lets through are cut to what a payload holds.
TEST_F(VsClient, BoundsTheCountsOfDecodedIndications) {
  connect();
  on_decode = [](unsigned msg_id, uint8_t* decoded, unsigned size) {
    std::memset(decoded, 0xC5, size);
    if (msg_id == 0x0203) decoded[7128] = 0;  // the second list counts whether or not it is flagged
    return 0;
  };
  indicate(last_connection(), 0x0203, {});
  indicate(last_connection(), 0x0204, {});
  Bytes records(10696, 0xC5);
  for (size_t i = 0; i < 10; ++i) put(records, 4 + 712 * i + 704, 700);
  for (size_t i = 0; i < 5; ++i) put(records, 7128 + 712 * i + 704, 700);
  put(records, 7124, 10);
  put(records, 10688, 5);
  Bytes entries(412, 0xC5);
  for (size_t i = 0; i < 100; ++i) put(entries, 4 + 4 * i, 0xC5);
  put(entries, 404, 100);
  EXPECT_EQ(events, (std::vector<Event>{{3, records}, {4, entries}}));
}

TEST_F(VsClient, DropsWhatItCannotDeliver) {
  // A service that has one indication more than the library handles, 0x0777.
  const qmi_idl_service_object_type original = vs_client_info.service_object;
  std::vector<qmi_idl_service_message_table_entry> table(original->msgid_to_msg[QMI_IDL_INDICATION],
                                                         original->msgid_to_msg[QMI_IDL_INDICATION] + 4);
  table.push_back({0x0777, table.back().message_table_message_id, 4});
  qmi_idl_service_object service = *original;
  service.n_msgs[QMI_IDL_INDICATION] = 5;
  service.msgid_to_msg[QMI_IDL_INDICATION] = table.data();
  vs_client_info.service_object = &service;
  ASSERT_TRUE(vs_client_init(on_event));
  // Without a size, with bytes that cannot be decoded, unknown.
  for (const auto& [id, wire] : {std::pair{0x0778U, ""}, {0x0204U, "01 0100 B1"}, {0x0777U, "01 0100 B1"}}) {
    indicate(last_connection(), id, bytes(wire));
  }
  vs_init();  // what another client of the process does: there is no event callback any more
  vs_client_unsol_ind_cb(last_connection(), 0x0601, bytes("01 0100 B1").data(), 4, nullptr);
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(live_blocks(), IsEmpty());
}

TEST_F(VsClient, DropsAnIndicationWithoutMemory) {
  if (!FailAllocationOf::is_supported()) GTEST_SKIP() << "no allocation can be made to fail here";
  connect();
  const FailAllocationOf failing(10704);
  indicate(last_connection(), 0x0203, bytes("01 0400 A1A2A3A4 02 0100 00"));
  EXPECT_THAT(events, IsEmpty());
}

}  // namespace
