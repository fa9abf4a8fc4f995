// Which processes the library serves. A process's name is read once, so each is tried in a process of its own.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "modem_api.h"
#include "pelmar_log.h"
#include "scripted_platform.h"

namespace {

using namespace scripted;
using testing::Contains;
using testing::IsEmpty;

std::string name_of_this_process() {
  const char* const name = std::getenv("SCRIPTED_PROCESS_NAME");
  return name == nullptr ? "mtb" : name;
}

TEST(WhiteList, AnswersForThisProcess) {
  const bool served = std::getenv("SCRIPTED_REFUSED") == nullptr;
  EXPECT_EQ(modem_api_check_white_list(), served ? 1 : 0);
  const std::string line = std::string("D modem_api_check_white_list: check ") + (served ? "pass" : "fail") +
                           ", p_id: " + std::to_string(getpid()) + ", p_name: " + name_of_this_process();
  EXPECT_THAT(messages(), Contains(line));

  clear_log();
  pelmar_hal_set_logcat_print_mask(PELMAR_LOG_LEVEL_ERROR);
  clear_log();
  int32_t id = -1;
  EXPECT_EQ(modem_api_init(), served ? MODEM_API_SUCCESS : MODEM_API_ERR_NOT_INITIALIZED);
  EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &id),
            served ? MODEM_API_SUCCESS : MODEM_API_ERR_NOT_INITIALIZED);
  EXPECT_EQ(id, served ? 0 : -1);
  if (served) {
    EXPECT_THAT(log_bodies(), IsEmpty());
  } else {
    EXPECT_EQ(log_bodies(), (std::vector<std::string>{"E modem_api_init: check fail, do nothing",
                                                      "E modem_api_init_client: check fail, do nothing"}));
    EXPECT_THAT(calls(), IsEmpty());
  }
}

// Runs the test above in a process of another name.
int run_as(const std::string& name, bool served) {
  const pid_t child = fork();
  if (child == 0) {
    setenv("SCRIPTED_PROCESS_NAME", name.c_str(), 1);
    if (!served) setenv("SCRIPTED_REFUSED", "1", 1);
    execl("/proc/self/exe", "/scripted/child", "--gtest_filter=WhiteList.AnswersForThisProcess", nullptr);
    _exit(127);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

TEST(WhiteList, NamesThreeProcesses) {
  for (const char* name : {"qcrilNrd", "mtb", "modem_api_test"}) EXPECT_EQ(run_as(name, true), 0) << name;
  for (const char* name : {"qcrild", "qcrilNr", "qcrilNrd2", "qcrilnrd", "MTB", "mtb ", "modem_api_tes", ""}) {
    EXPECT_EQ(run_as(name, false), 0) << name;
  }
}

}  // namespace
