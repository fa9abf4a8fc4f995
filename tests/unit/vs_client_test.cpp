// The vendor-specific connection: its attempts, what it reports, what it makes of indications, and its log to the
// letter.
#include "vs_client.h"

#include "library_test.h"
#include "qmi_idl_lib_internal.h"

namespace {

using namespace scripted;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<uint8_t>;
using Statuses = std::vector<std::pair<uint32_t, uint32_t>>;

Statuses statuses;

class VsClient : public LibraryTest {
 protected:
  VsClient() {
    vs_client_set_operational_status_callback(
        [](uint32_t type, uint32_t status) { statuses.emplace_back(type, status); });
    forget();
  }

  static void connect() {
    ASSERT_TRUE(vs_client_init(on_event));
    forget();
    statuses.clear();
  }

  static bool is_context_clear() {
    const vs_client_context zero = {};
    return std::memcmp(&vs_client_info, &zero, sizeof(zero)) == 0;
  }
};

TEST_F(VsClient, ConnectsAtTheThirdAttempt) {
  on_init_instance = [](int attempt) { return attempt < 2 ? QMI_TIMEOUT_ERR : 0; };
  EXPECT_TRUE(vs_client_init(on_event));
  EXPECT_EQ(statuses, (Statuses{{0, 1}, {0, 3}}));
  EXPECT_EQ(sleeps, (std::vector<unsigned>{1, 1}));
  EXPECT_EQ(call_names(),
            (std::vector<std::string>{"init_instance", "init_instance", "init_instance", "register_error_cb"}));
  EXPECT_THAT(calls("init_instance"), Each((Call{.name = "init_instance", .msg_id = 65535, .timeout = 4})));
  EXPECT_EQ(vs_client_info.client_handle, last_connection());
  EXPECT_EQ(vs_client_info.connected, 1);
  EXPECT_EQ(log_bodies(), (std::vector<std::string>{
                              "D vs_client_init: function entry ------------->",
                              "D vs_client_init: Client connecting to QMI FW",
                              "D vs_client_get_master_port: using port 65535",
                              "D vs_client_init: Trying qmi_client_init_instance() try # 0 port[65535]",
                              "D vs_client_init: Trying qmi_client_init_instance() try # 1 port[65535]",
                              "D vs_client_init: Trying qmi_client_init_instance() try # 2 port[65535]",
                              "D vs_client_init: qmi_client_init_instance returned (0)",
                              "D vs_client_init: function exit, ret(1)",
                          }));
}

TEST_F(VsClient, GivesUpAfterTenAttempts) {
  on_init_instance = [](int attempt) { return attempt < 10 ? QMI_TIMEOUT_ERR : 0; };
  EXPECT_FALSE(vs_client_init(on_event));
  EXPECT_EQ(statuses, (Statuses{{0, 1}, {0, 2}}));
  EXPECT_EQ(sleeps, std::vector<unsigned>(9, 1));
  EXPECT_EQ(call_names(), std::vector<std::string>(10, "init_instance"));
  EXPECT_EQ(vs_client_info.client_handle, nullptr);
  EXPECT_EQ(vs_client_info.connected, 0);
  const std::vector<std::string> log = log_bodies();
  EXPECT_EQ(log.at(12), "D vs_client_init: Trying qmi_client_init_instance() try # 9 port[65535]");
  EXPECT_THAT(std::vector<std::string>(log.begin() + 13, log.end()),
              ElementsAre("D vs_client_init: qmi_client_init_instance returned (-3)",
                          "D vs_client_init: qmi_client_init_instance returned failure(-3)",
                          "D vs_client_init: function exit, ret(0)"));
  // It is ready for another attempt.
  EXPECT_TRUE(vs_client_init(on_event));
}

TEST_F(VsClient, ConnectsAgainOnlyAfterANewStart) {
  EXPECT_TRUE(vs_client_release()) << "without a connection";
  EXPECT_THAT(calls(), IsEmpty());
  vs_init();
  vs_client_set_operational_status_callback(
      [](uint32_t type, uint32_t status) { statuses.emplace_back(type, status); });
  connect();
  const qmi_client_type handle = vs_client_info.client_handle;
  EXPECT_TRUE(vs_client_release());
  EXPECT_EQ(statuses, (Statuses{{0, 0}}));
  EXPECT_EQ(call_names(), std::vector<std::string>{"release"});
  EXPECT_FALSE(is_open(handle));
  EXPECT_TRUE(is_context_clear());

  EXPECT_FALSE(vs_client_init(on_event));
  EXPECT_EQ(calls("init_instance").size(), 10U);
  EXPECT_EQ(vs_init(), vs_get_service_object_internal_v01(1, 2, 6));
  EXPECT_TRUE(vs_client_init(on_event));
}

TEST_F(VsClient, AnswersTheFrameworksCodesUnchanged) {
  Bytes bytes(8);
  EXPECT_EQ(vs_client_send_msg_sync(7, bytes.data(), 8, bytes.data(), 8), QMI_CLIENT_INVALID_CLNT);
  EXPECT_EQ(vs_client_send_msg_async(7, bytes.data(), 8, bytes.data(), 8, nullptr), QMI_CLIENT_INVALID_CLNT);
  connect();
  on_send = [](const Call&) { return Answer{.code = QMI_XPORT_BUSY_ERR}; };
  on_send_async = [](const Call&) { return QMI_CLIENT_TRANSPORT_ERR; };
  EXPECT_EQ(vs_client_send_msg_sync(7, bytes.data(), 8, bytes.data(), 8), QMI_XPORT_BUSY_ERR);
  EXPECT_EQ(vs_client_send_msg_async(7, bytes.data(), 8, bytes.data(), 8, nullptr), QMI_CLIENT_TRANSPORT_ERR);
}

TEST_F(VsClient, StaysSilentWhenTheServiceGoes) {
  connect();
  lose_service(last_connection(), QMI_SERVICE_ERR);
  EXPECT_EQ(messages(), std::vector<std::string>{"E vs_client_service_down_event: service down with error -2"});
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
    forget();
    indicate(last_connection(), indication.id, bytes(indication.wire));
    EXPECT_EQ(events, std::vector<Event>{indication.event});
    std::ostringstream line;
    line << "D vs_client_ind_hdlr: Handling indication msg 0x" << std::hex << indication.id;
    EXPECT_EQ(messages(), std::vector<std::string>{line.str()});
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
  const auto put = [](Bytes& payload, size_t offset, uint32_t value) {
    std::memcpy(&payload.at(offset), &value, sizeof(value));
  };
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
  // A service that has one indication more than the library knows, 0x0777.
  const qmi_idl_service_object_type original = vs_client_info.service_object;
  std::vector<qmi_idl_service_message_table_entry> table(original->msgid_to_msg[QMI_IDL_INDICATION],
                                                         original->msgid_to_msg[QMI_IDL_INDICATION] + 4);
  table.push_back({0x0777, table.back().message_table_message_id, 4});
  qmi_idl_service_object service = *original;
  service.n_msgs[QMI_IDL_INDICATION] = 5;
  service.msgid_to_msg[QMI_IDL_INDICATION] = table.data();
  vs_client_info.service_object = &service;
  connect();
  const struct {
    unsigned id;
    const char* wire;
    std::vector<std::string> log;
  } indications[] = {
      {0x0778, "", {"E vs_client_unsol_ind_cb: decoded_payload_len(0) can not <= 0"}},
      {0x0204, "01 0100 B1", {"E vs_client_unsol_ind_cb: Indication decode failed for msg 0x204 with error -45"}},
      {0x0777,
       "01 0100 B1",
       {"D vs_client_ind_hdlr: Handling indication msg 0x777", "E vs_client_ind_hdlr: Unknown indication msg 777"}},
  };
  for (const auto& indication : indications) {
    forget();
    indicate(last_connection(), indication.id, bytes(indication.wire));
    EXPECT_EQ(messages(), indication.log);
  }
  if (FailAllocationOf::is_supported()) {
    forget();
    {
      const FailAllocationOf failing(10704);
      indicate(last_connection(), 0x0203, bytes("01 0400 A1A2A3A4 02 0100 00"));
    }
    EXPECT_EQ(messages(), (std::vector<std::string>{"E hydra_malloc_adv: Fail to allocate memory",
                                                    "E vs_client_unsol_ind_cb: decoded_payload is NULL"}));
  }
  forget();
  vs_init();  // what another client of the process does; nobody listens any more
  vs_client_unsol_ind_cb(last_connection(), 0x0601, bytes("01 0100 B1").data(), 4, nullptr);
  EXPECT_EQ(messages(), std::vector<std::string>{"E vs_client_unsol_ind_cb: The hydra is not inited, do nothing"});
  EXPECT_THAT(events, IsEmpty());
  EXPECT_THAT(live_blocks(), IsEmpty());
}

}  // namespace
