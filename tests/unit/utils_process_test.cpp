// The process's name and id, and the search of the process table.
#include <unistd.h>

#include "library_test.h"

namespace {

using namespace scripted;

// A file of the process in /proc, its content ("-": there is no such file), and the resulting name.
using NameCase = std::tuple<const char*, std::string, std::string>;

class ProcessName : public testing::TestWithParam<NameCase> {};

// A name is read once, even if that fails.
TEST_P(ProcessName, IsTakenFromTheFirstLine) {
  const auto& [file, content, name] = GetParam();
  properties["persist.vendor.radio.adb_log_shell"] = "0";
  const bool by_status = std::string(file) == "/status";
  if (by_status) log_one_time_lines();
  redirect_opens(file, content == "-" ? "/nonexistent" : file_with(content));
  const auto read = by_status ? pelmar_get_current_pid_name_ex : pelmar_get_current_pid_name;
  EXPECT_EQ(read(), name);
  redirect_opens("", "");
  EXPECT_EQ(read(), name);
  EXPECT_EQ(pelmar_get_current_pid_name(), name);
  expect_golden_log();
}

INSTANTIATE_TEST_SUITE_P(Files, ProcessName,
                         testing::Values(NameCase{"/cmdline", std::string("mtb\0-x", 6), "mtb"},
                                         NameCase{"/cmdline", "/" + std::string(254, 'n'), std::string(252, 'n')},
                                         NameCase{"/cmdline", "-", ""}, NameCase{"/cmdline", "", ""},
                                         NameCase{"/status", "Name:\tby_status \nUmask: 0\n", "by_status"},
                                         NameCase{"/status", "-", "mtb"}));

using ProcessInfo = Golden<testing::Test>;

TEST_F(ProcessInfo, IsReadAgainExceptForTheCachedRecord) {
  EXPECT_EQ(pelmar_utils_get_pid_number(), getpid());
  for (const std::string& file :
       {file_with("/scripted/mtb"), file_with("plain"), file_with(""), std::string("/none")}) {
    redirect_opens("/cmdline", file);
    pelmar_pid_info info;
    pelmar_get_current_pid_info(&info);
    clear_log();
    EXPECT_STREQ(pelmar_utils_get_pid_name(), "mtb");
    EXPECT_EQ(pelmar_utils_get_pid_number(), getpid());
    EXPECT_TRUE(log_lines().empty());
  }
  pelmar_get_current_pid_info(nullptr);
  pelmar_get_pid_by_name(nullptr, "mtb");
  int32_t pid = 0;
  pelmar_get_pid_by_name(&pid, nullptr);
}

// Compatibility: the library compares with an empty name.
TEST(SearchByName, FindsOnlyTheEmptyName) {
  int32_t pid = -7;
  const int lowest = dup(STDOUT_FILENO);
  close(lowest);
  for (const std::string name : {"mtb", ""}) {
    clear_log();
    pelmar_get_pid_by_name(&pid, name.c_str());
    EXPECT_EQ(pid > 0, name.empty());
    const std::string outcome =
        name.empty() ? "pid: " + std::to_string(pid) : "continue, task_name is not same with task_name_tmp";
    for (const std::string& line : {"task_name_tmp: , task_name: " + name, outcome, std::string("close dir")}) {
      EXPECT_TRUE(logged("D pelmar_get_pid_by_name: " + line)) << line;
    }
  }
  EXPECT_EQ(dup(STDOUT_FILENO), lowest) << "a file or directory is still open";
}

}  // namespace
