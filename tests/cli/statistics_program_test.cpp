// The statistics commands and the feature that they need, as users run them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "client_program.h"

namespace pelmar::cli {
namespace {

using sim::test::Outcome;
using testing::AllOf;
using testing::HasSubstr;

using StatisticsProgramTest = ProgramWithModemTest;

TEST_F(StatisticsProgramTest, FeatureIsSwitchedAndShown) {
  EXPECT_EQ(shell("client feature on && client feature off --number 7 && client feature").output,
            "modem feature 2: on\nmodem feature 7: off\nmodem feature 2: on\n");
}

TEST_F(StatisticsProgramTest, StatisticsAreReadAndCleared) {
  modem().operator_command("statistic 1 antenna-switch old_config=1 new_config=3");
  modem().operator_command("statistic 1 0x1234 00ff10");
  const Outcome read = shell("client stats get antenna-switch 0x1234 nr-scc2 --sub 1");
  EXPECT_THAT(read.output, AllOf(HasSubstr("statistic 0x64 (antenna-switch): 8 bytes"), HasSubstr("new_config 3"),
                                 HasSubstr("statistic 0x1234: 3 bytes\n  0000  00 ff 10 "),
                                 HasSubstr("statistic 0x07 (nr-scc2): no value")));
  EXPECT_THAT(shell("client stats clear 0x1234 --sub 1 && client stats get 0x1234 --sub 1 --json").output,
              HasSubstr(R"("data":"000000")"));
  EXPECT_EQ(shell("client stats get 1 2 3 4 5 6 7 8 9 10 11").status, 2);
}

TEST_F(StatisticsProgramTest, AStatisticsClientIdIsOfOneProgram) {
  EXPECT_EQ(shell("client stats report on --json").output, "{\"report\":true,\"stats_client_id\":0}\n");
  for (const char* command : {"report off --client 0", "deregister lte-pcc --client 0"}) {
    const Outcome refused = shell("client stats " + std::string(command));
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.output, HasSubstr("valid in the program that it was granted to")) << command;
  }
  EXPECT_EQ(shell("client stats report off").status, 2);
}

}  // namespace
}  // namespace pelmar::cli
