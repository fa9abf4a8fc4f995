#include "library_test.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <regex>

namespace scripted {
namespace {

std::string normalised(const LogLine& line) {
  static const std::string id = std::to_string(getpid());
  static const std::pair<std::regex, const char*> kVariable[] = {
      {std::regex("(\\.cpp|\\.h):[0-9]+"), "$1"},
      {std::regex("ptr_hydra_data = 0x[0-9a-f]+"), "ptr_hydra_data = ADDRESS"},
      {std::regex("/proc/self/fd/[0-9]+"), "FILE"},
      {std::regex("errno = [0-9]+"), "errno = N"},
      {std::regex("/proc/" + id + "/"), "/proc/PID/"},
      {std::regex("p_id: " + id + ","), "p_id: PID,"},
  };
  std::string text = (line.priority == LOG_ERR ? "E " : "D ") + line.text;
  for (const auto& [pattern, replacement] : kVariable) text = std::regex_replace(text, pattern, replacement);
  return text;
}

}  // namespace

void expect_golden_log(const Lines& words) {
  std::ostringstream text;
  for (const LogLine& line : log_lines(true)) {
    const std::string actual = normalised(line);
    const auto has = [&](const std::string& word) { return actual.find(word) != actual.npos; };
    if (words.empty() || std::any_of(words.begin(), words.end(), has)) text << actual << '\n';
  }
  const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
  std::string name = std::string(test->test_suite_name()) + "." + test->name();
  std::replace(name.begin(), name.end(), '/', '.');
  const std::string path = std::string(GOLDEN_DIRECTORY) + "/" + name + ".log";
  const char* const mode = std::getenv("PELMAR_GOLDEN");
  if (mode != nullptr && std::string(mode) == "update") std::ofstream(path) << text.str();
  std::ostringstream wanted;
  wanted << std::ifstream(path).rdbuf();
  ASSERT_EQ(text.str(), wanted.str()) << path;
}

}  // namespace scripted
