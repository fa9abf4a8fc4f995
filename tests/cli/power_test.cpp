// The commands about the modem's power and its restart type, as their users run them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "client_program.h"
#include "sim_process.h"

namespace pelmar::cli {
namespace {

using sim::test::comes_true;
using sim::test::Outcome;
using sim::test::ScratchDirectory;
using sim::test::SimProcess;
using testing::HasSubstr;

class PowerTest : public testing::Test {
 protected:
  PowerTest() {
    setenv("PELMAR_PROPERTY_DIR", directory_.path("properties").c_str(), 1);
    setenv("PELMAR_QMI_SOCKET", directory_.path("qmux").c_str(), 1);
    unsetenv("PELMAR_PM_SOCKET");
  }

  static std::string output(const std::string& arguments) { return shell("client " + arguments).output; }

  // Whether `power status` comes to tell this.
  static bool comes_to(const std::string& text) {
    return comes_true([&] { return output("power status --json").find(text) != std::string::npos; });
  }

  // Starts a command in the background, which writes its output to that file of the directory.
  void start(const std::string& command, const std::string& file) const {
    shell("exec " MODEM_API_TEST " " + command + " >" + directory_.path(file) + " 2>&1 &");
  }
  std::string written(const std::string& file) const { return shell("cat " + directory_.path(file)).output; }

  ScratchDirectory directory_;
};

TEST_F(PowerTest, AVoteLastsUntilItsCommandEndsAndAWatcherSeesEveryStep) {
  const SimProcess modem(directory_, {"--pm-socket"});
  start("power watch --count 4 --json", "watch");
  ASSERT_TRUE(comes_to(R"("name":"modem_api_test watch","votes":false)"));
  start("power vote", "vote");
  ASSERT_TRUE(comes_to(R"({"power":"on-line","votes":1,)"));
  EXPECT_THAT(output("nv write 1 00"), HasSubstr("written"));
  EXPECT_EQ(output("power release"), "votes: 1 released, 0 left\n");
  ASSERT_TRUE(comes_to(R"({"power":"off-line","votes":0,"voters":[]})"));
  EXPECT_THAT(written("vote"), HasSubstr("vote taken back"));
  const std::string steps = written("watch");
  size_t place = 0;
  for (const char* step : {R"("event":1})", R"("event":2})", R"("event":3})", R"("event":0})", R"("event":1})"}) {
    place = steps.find(step, place);
    ASSERT_NE(place, std::string::npos) << step << " in " << steps;
    ++place;
  }
  EXPECT_EQ(shell("client power vote --for 1 --json | tail -n 1").output, R"({"vote":"released","device":"modem"})"
                                                                          "\n");
}

TEST_F(PowerTest, TellsThatThereIsNoManagerOrThatItIsGone) {
  {
    SimProcess modem(directory_, {"--pm-socket"});
    start("power watch", "watch");
    ASSERT_TRUE(comes_to("modem_api_test watch"));
    start("power vote", "vote");
    ASSERT_TRUE(comes_to(R"("power":"on-line")"));
    EXPECT_EQ(shell("client power vote --device toaster").status, 1);
    EXPECT_EQ(modem.end(SIGKILL), -SIGKILL);
  }
  for (const char* file : {"watch", "vote"}) {
    EXPECT_TRUE(comes_true([&] { return written(file).find("failed: ") != std::string::npos; })) << file;
  }
  for (const char* command : {"vote", "release", "status", "watch"}) {
    const Outcome outcome = shell(std::string("client power ") + command);
    EXPECT_EQ(outcome.status, 1) << command;
    EXPECT_THAT(outcome.output, HasSubstr("no peripheral manager responds on " + directory_.path("qmux.pm")));
  }
}

TEST_F(PowerTest, TheRestartTypeIsReadSwitchedAndRestored) {
  const struct {
    const char* arguments;
    const char* output;
  } kSteps[] = {
      {"ssr name", "CONFIG_EMPTY\n"},
      {"props set persist.vendor.ssr.restart_level ALL_DISABLE", ""},
      {"ssr get --json", R"({"type":0,"name":"MODEM_RESTART_LEVEL_ID_DEF"})"},
      {"ssr set ssr --json", R"({"type":1,"name":"MODEM_RESTART_LEVEL_ID_SSR","written":true})"},
      {"ssr set ssr --json", R"("written":false})"},
      {"ssr get", "restart type ssr (1)"},
      {"ssr name --json", R"({"level":"ALL_ENABLE"})"},
      {"ssr set def", "written"},
      {"ssr name", "ALL_DISABLE\n"},
      {"ssr wait 0 --json", R"({"waited_s":0})"},
  };
  for (const auto& step : kSteps) EXPECT_THAT(output(step.arguments), HasSubstr(step.output)) << step.arguments;
}

}  // namespace
}  // namespace pelmar::cli
