// Services and a modem that go away and come back under their clients, and the votes for its power.
#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "modem_api_peripheral_mng.h"
#include "modem_test.h"
#include "nas_client.h"
#include "pelmar_ssr.h"

namespace pelmar::system_test {
namespace {

using sim::test::comes_true;
using testing::ElementsAre;

// The statuses that a connection reports, kept by client type and passed on to the client table.
class Statuses {
 public:
  static void add(uint32_t type, uint32_t status) {
    modem_api_operational_status_cb(type, status);
    const std::lock_guard guard(lock_);
    lists_[type].push_back(status);
    changed_.notify_all();
  }

  // All that the client has reported since, once the last of it is this one.
  static std::vector<uint32_t> until(uint32_t type, uint32_t status) {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, std::chrono::seconds(90),
                      [&] { return !lists_[type].empty() && lists_[type].back() == status; });
    return std::exchange(lists_[type], {});
  }

 private:
  // Never destroyed: connections report until the process is gone.
  static inline std::mutex& lock_ = *new std::mutex;
  static inline std::condition_variable& changed_ = *new std::condition_variable;
  static inline std::array<std::vector<uint32_t>, MODEM_API_CLIENT_TYPES>& lists_ =
      *new std::array<std::vector<uint32_t>, MODEM_API_CLIENT_TYPES>;
};

class RestartTest : public ModemTest {
 protected:
  // An acknowledgement has so long that a test which waits for one in vain ends by its own limit.
  RestartTest() : ModemTest({"--pm-socket", "--pm-ack-ms", "600000", "--reset-ms", "0"}) {
    EXPECT_EQ(modem_api_peripheral_mng_init("modem"), 0);
    EXPECT_EQ(modem_api_peripheral_mng_vote(), 0);
    EXPECT_TRUE(comes_to("ready"));
  }

  bool comes_to(const char* state) {
    return comes_true([&] { return modem().value("status", "/state") == state; });
  }

  void open_clients() {
    sar_ = open(MODEM_API_CLIENT_SAR);
    for (const uint32_t sub : {0, 1}) {
      EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_NAS_0 + sub, nullptr, nullptr, &nas_[sub]), MODEM_API_SUCCESS);
    }
    sar_client_set_operational_status_callback(Statuses::add);
    nas_0_client_set_operational_status_callback(Statuses::add);
    nas_1_client_set_operational_status_callback(Statuses::add);
  }
  modem_api_result set_state() const { return modem_api_set_sar_rf_state(sar_, 2); }
  modem_api_result avoid_trm(int32_t sub) const { return modem_api_set_avoid_trm(nas_[sub], sub, 1); }

  // All three work, and the modem counts no other; the last loss of many may be noticed late.
  bool has_all_clients() {
    return comes_true([&] {
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

TEST_F(RestartTest, ServicesComeBackWithoutACallOfTheClient) {
  const std::vector<uint32_t> all = {MODEM_API_CLIENT_SAR, MODEM_API_CLIENT_NAS_0, MODEM_API_CLIENT_NAS_1};
  const std::vector<uint32_t> nas = {MODEM_API_CLIENT_NAS_0, MODEM_API_CLIENT_NAS_1};
  ASSERT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DUMP), 1);
  open_clients();
  const struct {
    const std::vector<uint32_t> clients;
    const char *down, *up;  // an empty command ends the last vote, or casts one
  } cases[] = {
      {{MODEM_API_CLIENT_SAR}, "service sar down", "service sar up"},
      {nas, "service nas down", "service nas up"},
      {all, "restart 3600000", "restart 0"},
      {all, "crash", "start"},
      {all, "", ""},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.down);
    if (*each.down == '\0') {
      modem_api_peripheral_mng_release_vote();
    } else {
      ctl(each.down);
    }
    for (const uint32_t client : each.clients) {
      EXPECT_THAT(Statuses::until(client, OPERATIONAL_STATUS_RELEASED), ElementsAre(4, 5));
    }
    EXPECT_NE(set_state() + avoid_trm(0) + avoid_trm(1), 0) << "a command of theirs fails";
    if (*each.up == '\0') {
      ASSERT_TRUE(comes_to("off"));
      EXPECT_EQ(modem_api_peripheral_mng_vote(), 0);
    } else {
      ctl(each.up);
    }
    for (const uint32_t client : each.clients) {
      EXPECT_THAT(Statuses::until(client, OPERATIONAL_STATUS_UP), ElementsAre(6, 3));
    }
    EXPECT_TRUE(has_all_clients());
  }
}

// Commands go on meanwhile, and each ends with its response or with the loss of the service.
TEST_F(RestartTest, ManyRestartsOfAServiceUnderLoad) {
  const int restarts = sim::test::transport() == "socket" ? 10 : 200;
  open_clients();
  std::atomic<bool> goes_on = true;
  std::thread load([&] {
    while (goes_on) {
      set_state();
      avoid_trm(0);
    }
  });
  for (int i = 0; i < restarts; ++i) {
    ctl(i % 2 == 0 ? "service nas down" : "service sar down");
    ctl(i % 2 == 0 ? "service nas up" : "service sar up");
    EXPECT_TRUE(comes_true([&] { return i % 2 == 0 ? avoid_trm(0) == 0 : set_state() == 0; })) << "restart " << i;
  }
  goes_on = false;
  load.join();
  EXPECT_TRUE(has_all_clients());
}

}  // namespace
}  // namespace pelmar::system_test
