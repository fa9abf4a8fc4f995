// The names of the processes that the library serves.
#include <unistd.h>

#include "library_test.h"
#include "pelmar_log.h"

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

}  // namespace
