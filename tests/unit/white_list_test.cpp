// Which processes the library serves. A process's name is read once, so each is tried in a process of its own.
#include <sys/wait.h>
#include <unistd.h>

#include "library_test.h"
#include "pelmar_log.h"

namespace {

using namespace scripted;

// The part of the test below that runs in a process of another name.
TEST(WhiteList, ServesThisProcess) {
  const char* const other_name = std::getenv("SCRIPTED_PROCESS_NAME");
  const std::string name = other_name != nullptr ? other_name : "mtb";
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
  EXPECT_EQ(id, served ? 0 : -1);
  EXPECT_EQ(calls().empty(), !served);
  const Lines refusals = {"E modem_api_init: check fail, do nothing",
                          "E modem_api_init_client: check fail, do nothing"};
  EXPECT_EQ(log_bodies(), served ? Lines{} : refusals);
}

TEST(WhiteList, NamesThreeProcesses) {
  for (const char* const name : {"qcrilNrd", "mtb", "modem_api_test", "qcrild", "qcrilNr", "qcrilNrd2", "qcrilnrd",
                                 "MTB", "mtb ", "modem_api_tes", ""}) {
    const pid_t child = fork();
    if (child == 0) {
      setenv("SCRIPTED_PROCESS_NAME", name, 1);
      execl("/proc/self/exe", "/scripted/child", "--gtest_filter=WhiteList.ServesThisProcess", nullptr);
      _exit(127);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << name;
  }
}

}  // namespace
