// The processes that the library serves, and the client table: the slots, the notices to clients, and the state after a
// client was opened and freed.
#include <unistd.h>

#include <atomic>
#include <future>
#include <set>

#include "library_test.h"
#include "pelmar_log.h"
#include "vs_client.h"

namespace {

using namespace scripted;

class WhiteList : public testing::TestWithParam<const char*> {};

TEST_P(WhiteList, ServesThreeProcesses) {
  const std::string name = GetParam();
  redirect_opens("/cmdline", file_with("/vendor/bin/" + name));
  const bool served = name == "qcrilNrd" || name == "mtb" || name == "modem_api_test";
  EXPECT_EQ(modem_api_check_white_list(), served ? 1 : 0);
  EXPECT_TRUE(logged(std::string("D modem_api_check_white_list: check ") + (served ? "pass" : "fail") +
                     ", p_id: " + std::to_string(getpid()) + ", p_name: " + name));
  pelmar_hal_set_logcat_print_mask(PELMAR_LOG_LEVEL_ERROR);
  clear_log();
  int32_t id = -1;
  const modem_api_result result = served ? MODEM_API_SUCCESS : MODEM_API_ERR_NOT_INITIALIZED;
  EXPECT_EQ(modem_api_init(), result);
  EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &id), result);
  EXPECT_EQ(calls().empty(), !served);
  const Lines refusals = {"E modem_api_init: check fail, do nothing",
                          "E modem_api_init_client: check fail, do nothing"};
  EXPECT_EQ(log_bodies(), served ? Lines{} : refusals);
}

INSTANTIATE_TEST_SUITE_P(Names, WhiteList,
                         testing::Values("qcrilNrd", "mtb", "modem_api_test", "qcrilNr", "qcrilNrd2", "MTB", ""));

constexpr int32_t kUntouched = 77;

class ClientTable : public LibraryTest {
 protected:
  // Opens a client of a type and expects a refusal that changes nothing.
  static void expect_refused(modem_api_client_type type, modem_api_result result) {
    SCOPED_TRACE(testing::Message() << "type " << type);
    clear_records();
    const size_t blocks = live_blocks().size();
    int32_t id = kUntouched;
    EXPECT_EQ(modem_api_init_client(type, on_event, on_notice, &id), result);
    EXPECT_EQ(id, kUntouched);
    EXPECT_EQ(live_blocks().size(), blocks);
    EXPECT_THAT(calls(), IsEmpty());
  }
};

TEST_F(ClientTable, GivesTheFirstFreeSlot) {
  on_send = returns(-3);  // a NAS client opens even if it cannot register
  int32_t id = 0;
  for (const modem_api_client_type type : {3, 1, 0, 2}) {
    clear_records();
    EXPECT_EQ(open(type), id++);
    EXPECT_EQ(notices, (Notices{{MODEM_API_NOTICE_SERVICE_UP, type}}));
  }
  EXPECT_EQ(modem_api_free_client(1), 0);
  EXPECT_EQ(modem_api_init(), 0);
  EXPECT_EQ(open(MODEM_API_CLIENT_SAR), 1);
}

TEST_F(ClientTable, HasOneClientOfAType) {
  open_all();
  for (modem_api_client_type type = 0; type < 4; ++type) {
    expect_refused(type, MODEM_API_ERR_ALREADY_INITIALIZED);
    for (const uint32_t status : {0, 1, 2, 4, 5, 6, 7}) {
      modem_api_operational_status_cb(type, status);
      expect_refused(type, MODEM_API_ERR_SERVICE_PENDING);
    }
  }
  for (const modem_api_client_type type : {4U, UINT32_MAX}) expect_refused(type, MODEM_API_ERR_NOT_SUPPORTED);
  expect_golden_log({"nother client init", "not supported", "free_adv: function entry", "init_client: function exit"});
}

// The table has more slots than types, so it can be full only because the test changes the types of open records.
TEST_F(ClientTable, RefusesAClientWhenFull) {
  for (int32_t id = 0; id < MODEM_API_MAX_CLIENTS; ++id) {
    EXPECT_EQ(open(), id);
    int32_t pid = 0;  // for who reads a memory dump
    std::memcpy(&pid, static_cast<char*>(live_blocks().back().address) + 4, sizeof(pid));
    EXPECT_EQ(pid, getpid());
    const uint32_t other = MODEM_API_CLIENT_TYPES;
    std::memcpy(live_blocks().back().address, &other, sizeof(other));
  }
  expect_refused(MODEM_API_CLIENT_VS, MODEM_API_ERR_NO_FREE_CLIENT);
  EXPECT_TRUE(logged("E modem_api_init_client: no more client can be added"));
}

TEST_F(ClientTable, RemovesAClientThatCannotConnect) {
  on_call["init_instance"] = returns(QMI_TIMEOUT_ERR);
  on_call["sleep"] = [](const Call&) {  // the slot is taken while the client connects
    EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, nullptr), MODEM_API_ERR_SERVICE_PENDING);
    on_call["sleep"] = nullptr;
    return 0;
  };
  int32_t id = kUntouched;
  EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, on_event, on_notice, &id), MODEM_API_ERR_GENERIC);
  EXPECT_FALSE(on_call["sleep"]);
  EXPECT_EQ(id, kUntouched);
  EXPECT_THAT(notices, IsEmpty());
  EXPECT_THAT(live_blocks(), IsEmpty());
  on_call["init_instance"] = nullptr;
  EXPECT_EQ(open(), 0);
}

TEST_F(ClientTable, FreesAClientWithItsConnection) {
  for (const modem_api_client_type type : {0, 1, 2, 3}) {
    const int32_t id = open(type);
    clear_records();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(modem_api_free_client(id), 0);
    EXPECT_EQ(open_handles(), 0U);
    EXPECT_THAT(live_blocks(), IsEmpty());
    EXPECT_THAT(notices, IsEmpty());
  }
  for (const int32_t id : {-1, 10}) EXPECT_EQ(modem_api_free_client(id), MODEM_API_ERR_INVALID_CLIENT);
  expect_golden_log();
}

// Threads open clients and free those of the others. A handle is released once, and in the end nothing is left.
TEST_F(ClientTable, ThreadsOpenAndFreeClients) {
  constexpr int kRounds = 40;
  std::atomic<int> opened{0};
  const auto use = [&](int thread) {
    for (int i = 0; i < 8; ++i) {
      int32_t id = 0;
      const auto type = static_cast<modem_api_client_type>((thread / 2 + i) % 4);
      if (modem_api_init_client(type, nullptr, nullptr, &id) == MODEM_API_SUCCESS) ++opened;
      modem_api_free_client(i % 4);
    }
  };
  for (int round = 0; round < kRounds; ++round) {
    modem_api_init();  // allows one connection of each type
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < 4; ++thread) threads.push_back(std::async(std::launch::async, use, thread));
    for (auto& thread : threads) thread.wait();
    for (int32_t id = 0; id < MODEM_API_MAX_CLIENTS; ++id) modem_api_free_client(id);
    EXPECT_EQ(open_handles(), 0U);
    EXPECT_THAT(live_blocks(), IsEmpty());
  }
  EXPECT_GE(opened, kRounds);
  std::set<qmi_client_type> released;
  for (const Call& call : calls()) {
    if (call.name != "release") continue;
    EXPECT_TRUE(released.insert(call.handle).second);
  }
}

// A second initialisation does not count up but resets the connections' contexts. A release only empties the table.
TEST_F(ClientTable, IsInitialisedOnceAndReleasedWithoutItsConnections) {
  open();
  clear_records();
  auto& parameters = vs_client_info.os_params;
  std::memset(&parameters, 0xFF, sizeof parameters);
  EXPECT_EQ(modem_api_init(), 0);
  EXPECT_EQ(vs_client_info.client_handle, nullptr);
  EXPECT_TRUE(is_zero(parameters));
  expect_refused(MODEM_API_CLIENT_VS, MODEM_API_ERR_ALREADY_INITIALIZED);

  EXPECT_EQ(modem_api_release(), 0);
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_EQ(open_handles(), 1U);
  EXPECT_THAT(live_blocks(), SizeIs(1));
  EXPECT_EQ(modem_api_free_client(0), 0);
  EXPECT_EQ(open(), 0);

  EXPECT_EQ(modem_api_release(), 0);  // the counter is 0: the table stays as it is
  EXPECT_EQ(modem_api_common_command(0, nullptr, 0), 0);
  EXPECT_EQ(modem_api_init(), 0);
  EXPECT_EQ(modem_api_common_command(0, nullptr, 0), MODEM_API_ERR_INVALID_CLIENT);
}

TEST_F(ClientTable, NotifiesOfServicesThatComeAndGo) {
  open(MODEM_API_CLIENT_SAR);
  int32_t silent;
  EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &silent), 0);
  clear_records();
  for (uint32_t status = 0; status < 9; ++status) {
    for (const modem_api_client_type type : {0, 1, 2}) modem_api_operational_status_cb(type, status);
  }
  EXPECT_EQ(notices, (Notices{{0x10002, MODEM_API_CLIENT_SAR}, {0x10001, MODEM_API_CLIENT_SAR}}));
}

}  // namespace
