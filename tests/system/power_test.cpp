// Votes of several processes for the modem's power, and crashes of the modem under its clients.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "client_process.h"
#include "modem_test.h"
#include "pelmar_ssr.h"

namespace pelmar::system_test {
namespace {

using sim::test::comes_true;
using Bytes = std::vector<uint8_t>;

class PowerTest : public ModemTest {
 protected:
  // An acknowledgement has so long that a test which waits for one in vain ends by its own limit.
  PowerTest() : ModemTest({"--pm-socket", "--pm-ack-ms", "600000"}) { unsetenv("PELMAR_PM_SOCKET"); }

  // Whether the manager comes to count so many votes, and to that state at the end of the way.
  bool comes_to(size_t votes, const std::string& state) {
    return comes_true([&] {
      const nlohmann::json manager = modem().operator_command("power").at("manager");
      return manager.at("votes") == votes && manager.at("state") == state;
    });
  }
};

TEST_F(PowerTest, ThreeProcessesVoteAndOneIsKilled) {
  ClientProcess first("mtb", {"vote"});
  ClientProcess second("qcrilNrd", {"vote"});
  ClientProcess third("modem_api_test", {"vote"});
  for (ClientProcess* const voter : {&first, &second, &third}) ASSERT_EQ(voter->line(), "voted");
  ASSERT_TRUE(comes_to(3, "on-line"));
  const int32_t client = open(MODEM_API_CLIENT_VS);
  EXPECT_EQ(modem_api_notify_shutdown(client), MODEM_API_SUCCESS);

  EXPECT_EQ(second.end(SIGKILL), -SIGKILL);
  ASSERT_TRUE(comes_to(2, "on-line"));
  third.finish();
  EXPECT_EQ(third.end(), 0);
  ASSERT_TRUE(comes_to(1, "on-line"));
  EXPECT_EQ(modem_api_notify_shutdown(client), MODEM_API_SUCCESS) << "the modem was never off";

  EXPECT_EQ(first.end(SIGKILL), -SIGKILL);
  ASSERT_TRUE(comes_to(0, "off-line"));
  EXPECT_EQ(modem_api_notify_shutdown(client), MODEM_API_ERR_GENERIC);
  EXPECT_EQ(modem_api_free_client(client), MODEM_API_SUCCESS);

  ClientProcess next("mtb", {"vote"});
  ASSERT_EQ(next.line(), "voted");
  EXPECT_EQ(modem_api_notify_shutdown(open(MODEM_API_CLIENT_VS)), MODEM_API_SUCCESS);
  next.finish();
  EXPECT_EQ(next.end(), 0);
}

TEST_F(PowerTest, AVoteEndsWithItsProcessAlsoWhereAChildHasItsConnection) {
  ClientProcess voter("mtb", {"vote_with_heir"});
  ASSERT_EQ(voter.line(), "voted");
  ASSERT_TRUE(comes_true([&] { return modem().operator_command("power").at("power"); }));
  EXPECT_EQ(voter.end(SIGKILL), -SIGKILL);
  EXPECT_TRUE(comes_to(0, "off-line"));
}

// A crash in each restart type; a modem that stays down is started again.
class CrashTest : public ModemTest, public testing::WithParamInterface<int32_t> {
 protected:
  static constexpr uint32_t kItem = 7;

  void SetUp() override {
    ASSERT_EQ(pelmar_set_modem_ssr_type(GetParam()), 1);
    client_ = open(MODEM_API_CLIENT_VS);
  }

  void crash() {
    const bool restarts = modem().operator_command("crash").at("restarts");
    EXPECT_EQ(restarts, GetParam() == MODEM_RESTART_LEVEL_ID_SSR);
  }

  modem_api_result write(uint8_t value) const {
    const Bytes bytes(MODEM_API_MAX_ITEM_BYTES, value);
    return modem_api_write_nv(client_, kItem, 0, 0, bytes.data(), MODEM_API_MAX_ITEM_BYTES);
  }

  // What the item holds after the crash: the value of a write, never of two.
  int found_after_crash() {
    if (GetParam() == MODEM_RESTART_LEVEL_ID_DUMP) tell("start");
    modem_api_free_client(client_);
    client_ = open(MODEM_API_CLIENT_VS);
    Bytes bytes(MODEM_API_MAX_ITEM_BYTES);
    uint32_t length = MODEM_API_MAX_ITEM_BYTES;
    EXPECT_EQ(modem_api_read_nv(client_, kItem, 0, 0, bytes.data(), &length), MODEM_API_SUCCESS);
    const bool is_one_write = length == bytes.size() &&
                              std::all_of(bytes.begin(), bytes.end(), [&](uint8_t byte) { return byte == bytes[0]; });
    EXPECT_TRUE(is_one_write);
    return is_one_write ? bytes[0] : -1;
  }

  int32_t client_ = -1;
};

TEST_P(CrashTest, AWriteUnderWayFailsOrHasHappened) {
  for (int round = 0; round < 5; ++round) {
    ASSERT_EQ(write(1), MODEM_API_SUCCESS);
    std::atomic<int> done{1};
    std::atomic<int> tried{1};
    modem_api_result last = MODEM_API_SUCCESS;
    std::thread writer([&] {
      while (last == MODEM_API_SUCCESS) {
        tried = done % 250 + 1;
        last = write(static_cast<uint8_t>(tried));
        if (last == MODEM_API_SUCCESS) done = tried.load();
      }
    });
    EXPECT_TRUE(comes_true([&] { return done > 20; }));
    crash();
    writer.join();
    EXPECT_EQ(last, MODEM_API_ERR_GENERIC);
    const int found = found_after_crash();
    EXPECT_TRUE(found == done || found == tried) << found << ", written " << done << ", tried " << tried;
  }
}

TEST_P(CrashTest, AWriteWhoseAnswerIsLostFailsAtOnce) {
  ASSERT_EQ(write(1), MODEM_API_SUCCESS);
  tell("delay 600000 vs write-nv 1");
  modem_api_result result = MODEM_API_SUCCESS;
  std::thread writer([&] { result = write(2); });
  EXPECT_TRUE(comes_true([&] { return modem().operator_command("status").at("counters").at("faults") == 1; }));
  crash();
  writer.join();
  EXPECT_EQ(result, MODEM_API_ERR_GENERIC);
  EXPECT_EQ(found_after_crash(), 2) << "it had happened";
}

INSTANTIATE_TEST_SUITE_P(Types, CrashTest, testing::Values(MODEM_RESTART_LEVEL_ID_SSR, MODEM_RESTART_LEVEL_ID_DUMP),
                         [](const auto& type) {
                           return type.param == MODEM_RESTART_LEVEL_ID_SSR ? "Restart" : "Dump";
                         });

}  // namespace
}  // namespace pelmar::system_test
