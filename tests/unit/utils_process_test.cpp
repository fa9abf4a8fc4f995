// The process's own name and id, and the search of the process table.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "scripted_files.h"
#include "settled_log.h"

namespace scripted {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ProcessName, WithoutSlashIsTakenWhole) {
  redirect_opens("/cmdline", file_with(std::string("mtb\0-x", 6)));
  EXPECT_STREQ(pelmar_get_current_pid_name(), "mtb");
  EXPECT_STREQ(pelmar_get_current_pid_name(), "mtb");
  EXPECT_THAT(messages(), ElementsAre("D|pelmar_get_current_pid_name, proc_pid_buf = mtb",
                                      "E|pelmar_get_current_pid_name, proc_pid_buf should be name",
                                      "D|pelmar_get_current_pid_name, str_pid_name: mtb",
                                      "D|pelmar_get_current_pid_name, g_pid_info.p_name = mtb"));
}

TEST(ProcessName, IsCutTo253CharactersOfThePath) {
  redirect_opens("/cmdline", file_with("/" + std::string(300, 'n')));
  EXPECT_EQ(pelmar_get_current_pid_name(), std::string(252, 'n'));
}

TEST(ProcessName, IsTriedOnce) {
  redirect_opens("/cmdline", "/nonexistent");
  EXPECT_STREQ(pelmar_get_current_pid_name(), "");
  redirect_opens("", "");
  EXPECT_STREQ(pelmar_get_current_pid_name(), "");
  EXPECT_THAT(messages(), ElementsAre("E|fopen fail"));
}

TEST(ProcessName, OfAnEmptyFileIsEmpty) {
  redirect_opens("/cmdline", file_with(""));
  EXPECT_STREQ(pelmar_get_current_pid_name(), "");
  EXPECT_THAT(messages(), ElementsAre("E|pelmar_get_current_pid_name, fgets fail"));
}

TEST(ProcessNameEx, IsTrimmedAndReplacesTheName) {
  redirect_opens("/status", file_with("Name:\t by_status \nUmask: 0\n"));
  EXPECT_STREQ(pelmar_get_current_pid_name_ex(), "by_status");
  EXPECT_STREQ(pelmar_get_current_pid_name(), "by_status");
  EXPECT_TRUE(logged("D|pelmar_get_current_pid_name_ex, proc_pid_buf = Name:\t by_status \n"));
  EXPECT_TRUE(logged("D|pelmar_get_current_pid_name_ex, g_pid_info.p_name = by_status"));
}

TEST(ProcessNameEx, KeepsTheNameWhenTheStatusCannotBeRead) {
  settle_log();
  redirect_opens("/status", "/nonexistent");
  EXPECT_STREQ(pelmar_get_current_pid_name_ex(), "mtb");
  EXPECT_STREQ(pelmar_get_current_pid_name_ex(), "mtb");
  EXPECT_THAT(messages(), ElementsAre("E|pelmar_get_current_pid_name_ex, fopen fail"));
}

TEST(ProcessNameEx, KeepsTheNameWhenTheStatusIsEmpty) {
  settle_log();
  redirect_opens("/status", file_with(""));
  EXPECT_STREQ(pelmar_get_current_pid_name_ex(), "mtb");
  EXPECT_THAT(messages(), ElementsAre("E|pelmar_get_current_pid_name_ex, fgets fail"));
}

TEST(ProcessInfo, IsReadAnewWithEveryStepLogged) {
  settle_log();
  const std::string pid = std::to_string(getpid());
  const std::string named = "D pelmar_get_name_by_pid: ";
  pelmar_pid_info info;
  pelmar_get_current_pid_info(&info);
  EXPECT_EQ(info.p_id, getpid());
  EXPECT_STREQ(info.p_name, "mtb");
  EXPECT_THAT(new_messages(),
              ElementsAre(named + "proc_pid_path: /proc/" + pid + "/cmdline", named + "proc_pid_buf: /scripted/mtb",
                          named + "str_pid_name: /mtb", named + "p_pid_info->p_name: mtb", named + "close fp",
                          "D pelmar_get_current_pid_info: p_id: " + pid + ", p_name: mtb"));

  redirect_opens("/cmdline", file_with("plain"));
  pelmar_get_current_pid_info(&info);
  EXPECT_STREQ(info.p_name, "plain");
  EXPECT_TRUE(logged(named + "proc_pid_buf should be name"));

  redirect_opens("/cmdline", "/nonexistent");
  clear_log();
  pelmar_get_current_pid_info(&info);
  EXPECT_STREQ(info.p_name, "");
  EXPECT_TRUE(logged("E pelmar_get_name_by_pid: fopen fail"));
  EXPECT_TRUE(logged("D pelmar_get_current_pid_info: p_id: " + pid + ", p_name: "));

  redirect_opens("/cmdline", file_with(""));
  pelmar_get_current_pid_info(&info);
  EXPECT_STREQ(info.p_name, "");
  EXPECT_TRUE(logged("E pelmar_get_name_by_pid: fgets fail"));

  clear_log();
  pelmar_get_current_pid_info(nullptr);
  EXPECT_THAT(new_messages(), ElementsAre("E pelmar_get_current_pid_info: p_pid_info is NULL"));
  EXPECT_STREQ(pelmar_get_current_pid_name(), "mtb");
}

TEST(ProcessInfo, OwnRecordIsFilledByTheFirstQuestion) {
  settle_log();
  EXPECT_EQ(pelmar_utils_get_pid_number(), getpid());
  EXPECT_FALSE(new_messages().empty());
  redirect_opens("/cmdline", file_with("/x/renamed"));
  EXPECT_STREQ(pelmar_utils_get_pid_name(), "mtb");
  EXPECT_EQ(pelmar_utils_get_pid_number(), getpid());
  EXPECT_THAT(new_messages(), IsEmpty());
}

TEST(SearchByName, FindsNoNameAndTheEmptyNameAtOnce) {
  settle_log();
  int32_t pid = -7;
  pelmar_get_pid_by_name(nullptr, "mtb");
  pelmar_get_pid_by_name(&pid, nullptr);
  EXPECT_EQ(new_messages("pelmar_get_pid_by_name"), (Lines{"E pid fail", "E task_name fail"}));

  pelmar_get_pid_by_name(&pid, "mtb");
  EXPECT_EQ(pid, -7);
  Lines lines = new_messages("pelmar_get_pid_by_name");
  EXPECT_EQ(lines[2], "D task_name_tmp: , task_name: mtb");
  EXPECT_EQ(lines[3], "D continue, task_name is not same with task_name_tmp");
  EXPECT_EQ(lines.back(), "D close dir");

  pelmar_get_pid_by_name(&pid, "");
  EXPECT_GT(pid, 0);
  lines = new_messages("pelmar_get_pid_by_name");
  lines.erase(lines.begin() + 1);
  EXPECT_EQ(lines,
            (Lines{"D task_name: ", "D task_name_tmp: , task_name: ", "D pid: " + std::to_string(pid), "D close dir"}));
}

}  // namespace
}  // namespace scripted
