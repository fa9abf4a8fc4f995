// Clients during restarts of services and of the modem, and the votes for its power.
#include <gmock/gmock.h>

#include <array>

#include "modem_api_peripheral_mng.h"
#include "modem_test.h"
#include "nas_client.h"
#include "pelmar_ssr.h"
#include "scripted_modem.h"

namespace pelmar::system_test {
namespace {

using sim::test::wait_until;
using testing::ElementsAre;

using StatusLists = std::array<std::vector<uint32_t>, MODEM_API_CLIENT_TYPES>;

// The statuses of connections by client type. Never destroyed: connections report until the process ends.
auto& statuses = *new platform::SharedValue<StatusLists>;

// Records the status, and passes it on to the client table.
void add_status(uint32_t type, uint32_t status) {
  modem_api_operational_status_cb(type, status);
  statuses.change([=](StatusLists& lists) { lists[type].push_back(status); });
}

// Waits until the client's last status is this one. Returns the statuses since the previous call.
std::vector<uint32_t> statuses_until(uint32_t type, uint32_t status) {
  statuses.wait_until([=](const StatusLists& lists) { return !lists[type].empty() && lists[type].back() == status; });
  return statuses.change([=](StatusLists& lists) { return std::exchange(lists[type], {}); });
}

class RestartTest : public ModemTest {
 protected:
  // The acknowledgement timeout is so long that a test that waits for one in error reaches its own time limit.
  RestartTest() : ModemTest({"--pm-socket", "--pm-ack-ms", "600000", "--reset-ms", "0"}) {
    EXPECT_EQ(modem_api_peripheral_mng_init("modem"), 0);
    EXPECT_EQ(modem_api_peripheral_mng_vote(), 0);
    EXPECT_TRUE(wait_for_state("ready"));
  }
  ~RestartTest() override { modem_api_peripheral_mng_deinit(); }

  bool wait_for_state(const char* state) {
    return wait_until([&] { return modem().value("status", "/state") == state; });
  }

  void open_clients() {
    sar_ = open(MODEM_API_CLIENT_SAR);
    for (const uint32_t sub : {0, 1}) {
      EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_NAS_0 + sub, nullptr, nullptr, &nas_[sub]), MODEM_API_SUCCESS);
    }
    sar_client_set_operational_status_callback(add_status);
    nas_0_client_set_operational_status_callback(add_status);
    nas_1_client_set_operational_status_callback(add_status);
  }
  modem_api_result set_state() const { return modem_api_set_sar_rf_state(sar_, 2); }
  modem_api_result avoid_trm(int32_t sub) const { return modem_api_set_avoid_trm(nas_[sub], sub, 1); }

  // Waits until all three work and the modem has no other client. A client may detect the last of many losses late.
  bool has_all_clients() {
    return wait_until([&] {
      const bool works =
          set_state() == MODEM_API_SUCCESS && avoid_trm(0) == MODEM_API_SUCCESS && avoid_trm(1) == MODEM_API_SUCCESS;
      size_t clients = 0;
      for (const auto& service : modem().value("status", "/services")) clients += service["clients"].size();
      return works && clients == 3;
    });
  }

  int32_t sar_ = -1;
  int32_t nas_[2] = {-1, -1};
};

TEST_F(RestartTest, ClientsReconnectWithoutACall) {
  if (sim::test::transport() == "proxy") GTEST_SKIP() << "qmi-proxy does not report that a client id is void";
  const std::vector<uint32_t> all = {MODEM_API_CLIENT_SAR, MODEM_API_CLIENT_NAS_0, MODEM_API_CLIENT_NAS_1};
  const std::vector<uint32_t> nas = {MODEM_API_CLIENT_NAS_0, MODEM_API_CLIENT_NAS_1};
  ASSERT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DUMP), 1);
  open_clients();
  const auto run = [this](const char* command) { return [=, this] { ctl(command); }; };
  const auto vote = [this] {
    EXPECT_TRUE(wait_for_state("off"));
    EXPECT_EQ(modem_api_peripheral_mng_vote(), 0);
  };
  const std::tuple<std::vector<uint32_t>, std::function<void()>, std::function<void()>> cases[] = {
      {{MODEM_API_CLIENT_SAR}, run("service sar down"), run("service sar up")},
      {nas, run("service nas down"), run("service nas up")},
      {all, run("restart 3600000"), run("restart 0")},
      {all, run("crash"), run("start")},
      {all, modem_api_peripheral_mng_release_vote, vote},
  };
  for (const auto& [clients, down, up] : cases) {
    SCOPED_TRACE(testing::PrintToString(clients));
    down();
    for (const uint32_t client : clients) {
      EXPECT_THAT(statuses_until(client, OPERATIONAL_STATUS_RELEASED), ElementsAre(4, 5));
    }
    EXPECT_NE(set_state() + avoid_trm(0) + avoid_trm(1), 0) << "a command fails while the service is away";
    up();
    for (const uint32_t client : clients) {
      EXPECT_THAT(statuses_until(client, OPERATIONAL_STATUS_UP), ElementsAre(6, 3));
    }
    EXPECT_TRUE(has_all_clients());
  }
}

// Commands continue meanwhile, and each ends with its response or with the loss of the service. The platform announces
// a service late if connections to it live for less than 100 ms.
TEST_F(RestartTest, ManyRestartsOfAServiceUnderLoad) {
  open_clients();
  std::atomic<bool> goes_on = true;
  const auto load = std::async(std::launch::async, [&] {
    while (goes_on) {
      set_state();
      avoid_trm(0);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  for (int left = sim::test::transport() == "socket" ? 10 : 200; left > 0; --left) {
    const std::string service = left % 2 == 0 ? "nas" : "sar";
    for (const char* state : {" down", " up"}) ctl("service " + service + state);
    EXPECT_TRUE(wait_until([&] { return (service == "nas" ? avoid_trm(0) : set_state()) == MODEM_API_SUCCESS; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
  }
  goes_on = false;
  load.wait();
  EXPECT_TRUE(has_all_clients());
}

}  // namespace
}  // namespace pelmar::system_test
