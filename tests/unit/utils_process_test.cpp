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

// What the kernel has of the process, the name that follows, and the lines that are written straight to the system log.
struct NameCase {
  const char* file;
  std::string path;
  std::string name;
  Lines lines;
};

class ProcessName : public testing::TestWithParam<NameCase> {};

// A name is read once, whether or not that succeeds.
TEST_P(ProcessName, IsTakenFromTheFirstLine) {
  const NameCase& given = GetParam();
  const bool by_status = std::string(given.file) == "/status";
  if (by_status) settle_log();
  redirect_opens(given.file, given.path);
  const auto read = by_status ? pelmar_get_current_pid_name_ex : pelmar_get_current_pid_name;
  EXPECT_EQ(read(), given.name);
  redirect_opens("", "");
  EXPECT_EQ(read(), given.name);
  EXPECT_EQ(pelmar_get_current_pid_name(), given.name);
  Lines lines = log_bodies();
  std::erase_if(lines, [](const std::string& line) { return line[1] != '|'; });
  EXPECT_EQ(lines, given.lines);
}

const std::string kName = "D|pelmar_get_current_pid_name, ";
const std::string kNameEx = "D|pelmar_get_current_pid_name_ex, ";

INSTANTIATE_TEST_SUITE_P(
    Files, ProcessName,
    testing::Values(
        NameCase{"/cmdline",
                 file_with(std::string("mtb\0-x", 6)),
                 "mtb",
                 {kName + "proc_pid_buf = mtb", "E|pelmar_get_current_pid_name, proc_pid_buf should be name",
                  kName + "str_pid_name: mtb", kName + "g_pid_info.p_name = mtb"}},
        NameCase{"/cmdline",
                 file_with("/" + std::string(300, 'n')),
                 std::string(252, 'n'),
                 {kName + "proc_pid_buf = /" + std::string(252, 'n'), kName + "str_pid_name: /" + std::string(252, 'n'),
                  kName + "g_pid_info.p_name = " + std::string(252, 'n')}},
        NameCase{"/cmdline", "/nonexistent", "", {"E|fopen fail"}},
        NameCase{"/cmdline", file_with(""), "", {"E|pelmar_get_current_pid_name, fgets fail"}},
        NameCase{"/status",
                 file_with("Name:\t by_status \nUmask: 0\n"),
                 "by_status",
                 {kNameEx + "proc_pid_buf = Name:\t by_status \n", kNameEx + "g_pid_info.p_name = by_status"}},
        NameCase{"/status", "/nonexistent", "mtb", {"E|pelmar_get_current_pid_name_ex, fopen fail"}},
        NameCase{"/status", file_with(""), "mtb", {"E|pelmar_get_current_pid_name_ex, fgets fail"}}));

TEST(ProcessInfo, IsReadAnew) {
  const std::string named = "D pelmar_get_name_by_pid: ";
  pelmar_pid_info info;
  const std::tuple<std::string, std::string, std::string> reads[] = {
      {"/scripted/mtb", "mtb", named + "str_pid_name: /mtb"},
      {"plain", "plain", named + "proc_pid_buf should be name"},
      {"", "", "E pelmar_get_name_by_pid: fgets fail"}};
  for (const auto& [content, name, line] : reads) {
    redirect_opens("/cmdline", file_with(content));
    pelmar_get_current_pid_info(&info);
    EXPECT_EQ(info.p_id, getpid());
    EXPECT_EQ(info.p_name, name);
    EXPECT_TRUE(logged(line)) << line;
  }
  redirect_opens("/cmdline", "/nonexistent");
  pelmar_get_current_pid_info(&info);
  EXPECT_STREQ(info.p_name, "");
  EXPECT_TRUE(logged("E pelmar_get_name_by_pid: fopen fail"));
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
