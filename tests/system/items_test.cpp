// NV items, EFS and pass-through commands from client processes to a modem and back.
#include <gmock/gmock.h>
#include <signal.h>

#include <condition_variable>
#include <fstream>
#include <future>
#include <list>
#include <mutex>
#include <sstream>
#include <thread>

#include "client_process.h"
#include "hydra_mem.h"
#include "modem_test.h"

namespace pelmar::system_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using Bytes = std::vector<uint8_t>;

class ItemsTest : public ModemTest {
 protected:
  // One read with room for a whole item: its bytes, or the result as the only byte.
  template <typename Read>
  static Bytes read(Read read_into) {
    Bytes data(MODEM_API_MAX_ITEM_BYTES);
    uint32_t length = MODEM_API_MAX_ITEM_BYTES;
    const modem_api_result result = read_into(data.data(), &length);
    if (result != MODEM_API_SUCCESS) return {static_cast<uint8_t>(result)};
    data.resize(length);
    return data;
  }
};

TEST_F(ItemsTest, EveryKindOfItemIsWrittenReadAndDeleted) {
  const int32_t client = open(MODEM_API_CLIENT_VS);
  const Bytes whole(MODEM_API_MAX_ITEM_BYTES, 0x5A);
  const Bytes small = {1, 2, 3};
  const char* const path = "/nv/item_files/modem/test";
  const auto size = [](const Bytes& bytes) { return static_cast<uint32_t>(bytes.size()); };

  const auto read_nv = [&](uint16_t index) {
    return read([&](uint8_t* data, uint32_t* length) { return modem_api_read_nv(client, 7, 1, index, data, length); });
  };
  const auto read_path = [&] {
    return read(
        [&](uint8_t* data, uint32_t* length) { return modem_api_read_efs_path(client, path, 0, 0, data, length); });
  };
  EXPECT_EQ(modem_api_write_nv(client, 7, 1, 2, whole.data(), size(whole)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_write_nv(client, 7, 1, 3, small.data(), size(small)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_write_efs(client, 7, 1, small.data(), size(small)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_write_rfnv(client, 7, whole.data(), size(whole)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_write_efs_path(client, path, 0, 0, small.data(), size(small)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_efs_sync(client, 0, 1, 2), MODEM_API_SUCCESS);

  EXPECT_EQ(read_nv(2), whole);
  EXPECT_EQ(read_nv(3), small);
  EXPECT_EQ(read_path(), small);
  EXPECT_EQ(read([&](uint8_t* data, uint32_t* length) { return modem_api_read_efs(client, 7, 1, data, length); }),
            small);
  EXPECT_EQ(read([&](uint8_t* data, uint32_t* length) { return modem_api_read_rfnv(client, 7, data, length); }), whole);

  EXPECT_EQ(modem_api_delete_nv(client, 7, 1, 2), MODEM_API_SUCCESS);
  EXPECT_THAT(read_nv(2), ElementsAre(MODEM_API_ERR_GENERIC));
  EXPECT_EQ(read_nv(3), small);
  EXPECT_EQ(modem_api_delete_efs_path(client, path, 0, 0), MODEM_API_SUCCESS);
  EXPECT_THAT(read_path(), ElementsAre(MODEM_API_ERR_GENERIC));
  EXPECT_EQ(modem_api_write_efs_path(client, "../../outside", 0, 0, small.data(), size(small)),
            MODEM_API_ERR_INVALID_PARAM);
}

// What an asynchronous command told its callback, in order.
struct Answers {
  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::pair<Bytes, uint32_t>> calls;

  static void add(const uint8_t* data, uint32_t length, void* user_data, uint32_t result) {
    auto& self = *static_cast<Answers*>(user_data);
    const std::lock_guard guard(self.lock);
    self.calls.emplace_back(Bytes(data, data + length), result);
    if (data != nullptr) hydra_free_adv(const_cast<uint8_t*>(data), __func__, __LINE__);
    self.changed.notify_one();
  }
};

TEST_F(ItemsTest, APassThroughCommandAnswersWithDataAndThenItsEnd) {
  const int32_t client = open(MODEM_API_CLIENT_VS);
  const Bytes payload(MODEM_API_MAX_PASS_THROUGH_BYTES, 0x33);
  EXPECT_EQ(modem_api_common_command(client, payload.data(), 512), MODEM_API_SUCCESS);
  Answers answers;
  ASSERT_EQ(modem_api_common_command_async(client, payload.data(), 512, &answers, Answers::add), MODEM_API_SUCCESS);
  std::unique_lock guard(answers.lock);
  answers.changed.wait_for(guard, std::chrono::seconds(60), [&] { return answers.calls.size() == 2; });
  ASSERT_EQ(answers.calls.size(), 2u);
  EXPECT_EQ(answers.calls[0], (std::pair{payload, uint32_t{MODEM_API_SUCCESS}}));
  EXPECT_EQ(answers.calls[1], (std::pair{Bytes{}, uint32_t{MODEM_API_RESP_END}}));
}

TEST_F(ItemsTest, ErrorsOfTheModemBecomeResults) {
  const int32_t client = open(MODEM_API_CLIENT_VS);
  const struct {
    int error;
    modem_api_result result;
  } kCases[] = {{4, MODEM_API_ERR_ABORTED},       {19, MODEM_API_ERR_INVALID_PARAM}, {26, MODEM_API_SUCCESS},
                {52, MODEM_API_ERR_NOT_READY},    {94, MODEM_API_ERR_NOT_SUPPORTED}, {50, MODEM_API_ERR_GENERIC},
                {24, MODEM_API_ERR_NOT_SUPPORTED}};
  for (const auto& test_case : kCases) {
    tell("error " + std::to_string(test_case.error) + " vs any 1");
    EXPECT_EQ(modem_api_delete_nv(client, 1, 0, 0), test_case.result) << test_case.error;
  }
}

TEST_F(ItemsTest, ThreeProcessesShareOneModem) {
  ClientProcess first("mtb", {"items", "100", "200"});
  ClientProcess second("qcrilNrd", {"items", "200", "200"});
  ClientProcess third("modem_api_test", {"items", "300", "200"});
  for (ClientProcess* client : {&first, &second, &third}) {
    EXPECT_EQ(client->line(), "open");
    EXPECT_EQ(client->line(), "done");
    EXPECT_EQ(client->end(), 0);
  }
}

TEST_F(ItemsTest, AKilledClientFreesItsId) {
  std::list<ClientProcess> clients;
  for (int i = 0; i < 10; ++i) clients.emplace_back("mtb", std::vector<std::string>{"hold"});
  for (ClientProcess& client : clients) ASSERT_EQ(client.line(), "open");
  ASSERT_EQ(modem_api_init(), MODEM_API_SUCCESS);
  int32_t id = -1;
  EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &id), MODEM_API_ERR_GENERIC);
  EXPECT_EQ(clients.front().end(SIGKILL), -SIGKILL);
  EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &id), MODEM_API_SUCCESS);
}

TEST_F(ItemsTest, AClientWaitsForAServiceThatIsAbsentForThreeTries) {
  tell("service vs down");
  auto opening = std::async(std::launch::async, [] { return open(MODEM_API_CLIENT_VS); });
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // tries 0, 1 and 2 fail
  EXPECT_EQ(opening.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  tell("service vs up");
  const int32_t client = opening.get();
  EXPECT_EQ(modem_api_notify_shutdown(client), MODEM_API_SUCCESS);
}

TEST_F(ItemsTest, AModemThatDiesInTheMiddleOfAResponseEndsTheCallAtOnce) {
  const int32_t client = open(MODEM_API_CLIENT_VS);
  const uint8_t byte = 1;
  ASSERT_EQ(modem_api_write_nv(client, 1, 0, 0, &byte, 1), MODEM_API_SUCCESS);
  tell("die modem vs");
  uint8_t data[4] = {42};
  uint32_t length = sizeof(data);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(modem_api_read_nv(client, 1, 0, 0, data, &length), MODEM_API_ERR_GENERIC);
  EXPECT_EQ(data[0], 42) << "no part of an answer that broke off";
  EXPECT_EQ(modem_api_write_nv(client, 1, 0, 0, &byte, 1), MODEM_API_ERR_GENERIC) << "not while the service is gone";
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(25)) << "no command waits for its time-out";
  EXPECT_EQ(modem().end(0), 70);
  EXPECT_EQ(modem_api_free_client(client), MODEM_API_SUCCESS);
}

TEST_F(ItemsTest, AProcessOfAnotherNameIsRefused) {
  const struct {
    const char* name;
    const char* result;
  } kCases[] = {{"qcrilNrd", "0"}, {"mtb", "0"}, {"modem_api_test", "0"}, {"mtb2", "6"}, {"MTB", "6"}, {"rild", "6"}};
  for (const auto& test_case : kCases) {
    ClientProcess client(test_case.name, {"init"});
    EXPECT_EQ(client.line(), test_case.result) << test_case.name;
  }
}

TEST_F(ItemsTest, EveryStepIsLoggedToBothSinks) {
  setenv(kSystemLogVariable, path("syslog").c_str(), 1);
  ClientProcess client("qcrilNrd", {"talk"});
  const std::string shell = client.rest();
  ASSERT_EQ(client.end(), 0);
  std::stringstream system_log;
  system_log << std::ifstream(path("syslog")).rdbuf();

  for (const char* body : {"vs_client_init: Client connecting to QMI FW\n",
                           "vs_client_init: Trying qmi_client_init_instance() try # 0 port[65535]\n",
                           "modem_api_read_nv: function entry ------------->\n", "modem_api_read_nv: result 1\n",
                           "modem_api_read_nv: function exit, ret(1) <-------------\n"}) {
    EXPECT_THAT(shell, HasSubstr(body));
    EXPECT_THAT(system_log.str(), HasSubstr(body));
  }
  EXPECT_THAT(shell, HasSubstr("RIL[modem_api_nv.cpp:"));
  EXPECT_THAT(system_log.str(), HasSubstr("<7>[qcrilNrd][modem_api_nv.cpp:"));
}

}  // namespace
}  // namespace pelmar::system_test
