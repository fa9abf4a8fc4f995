// SAR and NAS services that go away and come back under clients that go on sending.
#include <gmock/gmock.h>
#include <signal.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "client_process.h"
#include "modem_test.h"
#include "nas_client.h"
#include "pelmar_ssr.h"

namespace pelmar::system_test {
namespace {

using namespace std::chrono_literals;
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

  static std::vector<uint32_t> of(uint32_t type) {
    const std::lock_guard guard(lock_);
    return lists_[type];
  }

  // Waits until the client has reported `count` statuses of this kind.
  static bool wait_for(uint32_t type, uint32_t status, ptrdiff_t count = 1) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, 90s,
                             [&] { return std::count(lists_[type].begin(), lists_[type].end(), status) >= count; });
  }

  // Waits until the status reported last is up.
  static bool settle(uint32_t type) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, 90s,
                             [&] { return !lists_[type].empty() && lists_[type].back() == OPERATIONAL_STATUS_UP; });
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
  RestartTest() { open_clients(); }
  explicit RestartTest(const std::vector<std::string>& options) : ModemTest(options) {}

  void open_clients() {
    sar_ = open(MODEM_API_CLIENT_SAR);
    EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_NAS_0, nullptr, nullptr, &nas_[0]), MODEM_API_SUCCESS);
    EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_NAS_1, nullptr, nullptr, &nas_[1]), MODEM_API_SUCCESS);
    sar_client_set_operational_status_callback(Statuses::add);
    nas_0_client_set_operational_status_callback(Statuses::add);
    nas_1_client_set_operational_status_callback(Statuses::add);
  }

  void restart(const std::string& service) {
    tell("service " + service + " down");
    tell("service " + service + " up");
  }

  modem_api_result set_state(uint32_t state) const { return modem_api_set_sar_rf_state(sar_, state); }
  modem_api_result avoid_trm(int32_t sub) const { return modem_api_set_avoid_trm(nas_[sub], sub, 1); }

  // The services' clients of this process, as the modem sees them.
  size_t client_ids() {
    size_t count = 0;
    const nlohmann::json status = modem().operator_command("status");
    for (const auto& service : status.at("services")) count += service.at("clients").size();
    return count;
  }

  // All three work, and the modem counts no other; the last loss of many may be told late.
  bool has_all_clients() {
    return sim::test::comes_true([&] {
      return set_state(2) == MODEM_API_SUCCESS && avoid_trm(0) == MODEM_API_SUCCESS &&
             avoid_trm(1) == MODEM_API_SUCCESS && client_ids() == 3;
    });
  }

  int32_t sar_ = -1;
  int32_t nas_[2] = {-1, -1};
};

TEST_F(RestartTest, AServiceComesBackWithoutACallOfTheClient) {
  EXPECT_EQ(set_state(3), MODEM_API_SUCCESS);
  restart("sar");
  ASSERT_TRUE(Statuses::wait_for(MODEM_API_CLIENT_SAR, OPERATIONAL_STATUS_UP));
  EXPECT_THAT(Statuses::of(MODEM_API_CLIENT_SAR), ElementsAre(4, 5, 6, 3));
  EXPECT_EQ(set_state(4), MODEM_API_SUCCESS);
  EXPECT_THAT(Statuses::of(MODEM_API_CLIENT_NAS_0), ElementsAre());

  restart("nas");
  for (const uint32_t type : {MODEM_API_CLIENT_NAS_0, MODEM_API_CLIENT_NAS_1}) {
    ASSERT_TRUE(Statuses::wait_for(type, OPERATIONAL_STATUS_UP));
    EXPECT_THAT(Statuses::of(type), ElementsAre(4, 5, 6, 3));
  }
  EXPECT_EQ(avoid_trm(0), MODEM_API_SUCCESS);
  EXPECT_EQ(avoid_trm(1), MODEM_API_SUCCESS);
}

TEST_F(RestartTest, TheWholeModemComesBack) {
  tell("restart 0");
  for (uint32_t type = MODEM_API_CLIENT_SAR; type <= MODEM_API_CLIENT_NAS_1; ++type) {
    ASSERT_TRUE(Statuses::wait_for(type, OPERATIONAL_STATUS_UP));
    EXPECT_THAT(Statuses::of(type), ElementsAre(4, 5, 6, 3));
  }
  EXPECT_EQ(set_state(1), MODEM_API_SUCCESS);
  EXPECT_EQ(avoid_trm(1), MODEM_API_SUCCESS);
}

TEST_F(RestartTest, ACrashedModemIsSeenAsServicesThatGoAndComeBack) {
  const auto expect_to_be_back = [] {
    for (uint32_t type = MODEM_API_CLIENT_SAR; type <= MODEM_API_CLIENT_NAS_1; ++type) {
      ASSERT_TRUE(Statuses::wait_for(type, OPERATIONAL_STATUS_UP));
      EXPECT_THAT(Statuses::of(type), ElementsAre(4, 5, 6, 3));
    }
  };
  ASSERT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DUMP), 1);
  tell("crash");
  for (uint32_t type = MODEM_API_CLIENT_SAR; type <= MODEM_API_CLIENT_NAS_1; ++type) {
    ASSERT_TRUE(Statuses::wait_for(type, OPERATIONAL_STATUS_RELEASED));
  }
  EXPECT_NE(set_state(1), MODEM_API_SUCCESS);
  EXPECT_EQ(modem().operator_command("status").at("state"), "off");
  tell("start");
  expect_to_be_back();
  EXPECT_EQ(set_state(1), MODEM_API_SUCCESS);
  EXPECT_EQ(avoid_trm(1), MODEM_API_SUCCESS);
}

class PowerCycleTest : public RestartTest {
 protected:
  PowerCycleTest() : RestartTest({"--pm-socket"}) {}
};

TEST_F(PowerCycleTest, ServicesGoWithTheLastVoteAndComeBackWithTheNext) {
  unsetenv("PELMAR_PM_SOCKET");
  const auto comes_to = [&](const std::string& state) {
    return sim::test::comes_true([&] { return modem().operator_command("power").at("manager").at("state") == state; });
  };
  {
    ClientProcess voter("mtb", {"vote"});
    ASSERT_EQ(voter.line(), "voted");
    ASSERT_TRUE(comes_to("on-line"));
    open_clients();
    voter.finish();
    EXPECT_EQ(voter.end(), 0);
  }
  for (uint32_t type = MODEM_API_CLIENT_SAR; type <= MODEM_API_CLIENT_NAS_1; ++type) {
    ASSERT_TRUE(Statuses::wait_for(type, OPERATIONAL_STATUS_RELEASED)) << type;
  }
  ASSERT_TRUE(comes_to("off-line"));
  EXPECT_NE(set_state(1), MODEM_API_SUCCESS);
  EXPECT_NE(avoid_trm(0), MODEM_API_SUCCESS);

  ClientProcess voter("mtb", {"vote"});
  ASSERT_EQ(voter.line(), "voted");
  for (uint32_t type = MODEM_API_CLIENT_SAR; type <= MODEM_API_CLIENT_NAS_1; ++type) {
    ASSERT_TRUE(Statuses::wait_for(type, OPERATIONAL_STATUS_UP)) << type;
    EXPECT_THAT(Statuses::of(type), ElementsAre(4, 5, 6, 3)) << type;
  }
  EXPECT_EQ(set_state(1), MODEM_API_SUCCESS);
  EXPECT_EQ(avoid_trm(1), MODEM_API_SUCCESS);
  voter.finish();
  EXPECT_EQ(voter.end(), 0);
}

TEST_F(RestartTest, TwoHundredRestartsUnderTwoSenders) {
  std::atomic<bool> stop{false};
  std::atomic<int> strange_results{0};
  std::atomic<int64_t> longest_ms{0};
  const auto send = [&](auto command) {
    while (!stop) {
      const auto start = std::chrono::steady_clock::now();
      const modem_api_result result = command();
      const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
      if (took.count() > longest_ms) longest_ms = took.count();
      if (result < MODEM_API_SUCCESS || result > MODEM_API_ERR_ALREADY_INITIALIZED) ++strange_results;
    }
  };
  std::thread first(send, [&] { return set_state(1); });
  std::thread second(send, [&] { return avoid_trm(1); });

  for (int i = 1; i <= 200; ++i) {
    restart("sar");
    restart("nas");
    if (i % 10 != 0) continue;
    // Settle now and then; in between the next restart may come in the middle of a reconnection.
    for (uint32_t type = MODEM_API_CLIENT_SAR; type <= MODEM_API_CLIENT_NAS_1; ++type) {
      ASSERT_TRUE(Statuses::settle(type)) << "type " << type;
    }
  }
  stop = true;
  first.join();
  second.join();

  EXPECT_EQ(strange_results, 0);
  EXPECT_LT(longest_ms, 30'000);
  EXPECT_TRUE(has_all_clients()) << client_ids();
  for (uint32_t type = MODEM_API_CLIENT_SAR; type <= MODEM_API_CLIENT_NAS_1; ++type) {
    EXPECT_TRUE(sim::test::comes_true([&] { return Statuses::of(type).size() % 4 == 0; })) << "type " << type;
    const std::vector<uint32_t> statuses = Statuses::of(type);
    for (size_t i = 0; i < statuses.size(); ++i) {
      const uint32_t expected[] = {4, 5, 6, 3};
      ASSERT_EQ(statuses[i], expected[i % 4]) << "type " << type << ", status " << i;
    }
  }
}

TEST_F(RestartTest, AClientFreedWhileItsServiceIsAwayHoldsNothing) {
  tell("service sar down");
  ASSERT_TRUE(Statuses::wait_for(MODEM_API_CLIENT_SAR, OPERATIONAL_STATUS_RELEASED));
  EXPECT_EQ(modem_api_free_client(sar_), MODEM_API_SUCCESS);
  tell("service sar up");
  sar_init();
  ASSERT_EQ(modem_api_init_client(MODEM_API_CLIENT_SAR, nullptr, nullptr, &sar_), MODEM_API_SUCCESS);
  EXPECT_TRUE(has_all_clients()) << client_ids();
}

TEST_F(RestartTest, AClientFreedInTheMiddleOfAReconnectionHoldsNothing) {
  for (int i = 0; i < 30; ++i) {
    restart("sar");
    std::this_thread::sleep_for(std::chrono::microseconds(i * 200));
    ASSERT_EQ(modem_api_free_client(sar_), MODEM_API_SUCCESS);
    sar_init();
    ASSERT_EQ(modem_api_init_client(MODEM_API_CLIENT_SAR, nullptr, nullptr, &sar_), MODEM_API_SUCCESS);
  }
  EXPECT_TRUE(has_all_clients()) << client_ids();
}

TEST_F(RestartTest, AProcessMayExitInTheMiddleOfAReconnection) {
  for (int i = 0; i < 20; ++i) {
    ClientProcess client("mtb", {"leave", std::to_string(i * 300)});
    ASSERT_EQ(client.line(), "open");
    restart("sar");
    client.finish();
    EXPECT_EQ(client.end(), 0);
  }
  EXPECT_TRUE(has_all_clients()) << client_ids();
}

}  // namespace
}  // namespace pelmar::system_test
