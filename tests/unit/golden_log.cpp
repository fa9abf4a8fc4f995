#include "golden_log.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

namespace scripted {
namespace {

// Writes `replacement` for every occurrence of `start` with the characters of `rest` that follow it.
void replace(std::string& text, const std::string& start, const char* rest, const std::string& replacement) {
  for (size_t at = 0; (at = text.find(start, at)) != text.npos; at += replacement.size()) {
    const size_t end = std::min(text.find_first_not_of(rest, at + start.size()), text.size());
    text.replace(at, end - at, replacement);
  }
}

std::string normalised(const LogLine& line) {
  constexpr char kDigits[] = "0123456789";
  const std::string id = std::to_string(getpid());
  std::string text = (line.priority == 3 ? "E " : "D ") + line.text;
  replace(text, ".cpp:", kDigits, ".cpp");
  replace(text, ".h:", kDigits, ".h");
  replace(text, "ptr_hydra_data = 0x", "0123456789abcdef", "ptr_hydra_data = ADDRESS");
  replace(text, "/proc/self/fd/", kDigits, "FILE");
  replace(text, "errno = ", kDigits, "errno = N");
  replace(text, "/proc/" + id + "/", "", "/proc/PID/");
  replace(text, "p_id: " + id + ",", "", "p_id: PID,");
  return text;
}

}  // namespace

void expect_golden_log(const Lines& words) {
  std::ostringstream text;
  for (const LogLine& line : whole_log()) {
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
  std::ifstream file(path);
  std::istringstream written(text.str());
  std::string wanted, actual;
  for (int number = 1; std::getline(file, wanted); ++number) {
    ASSERT_TRUE(std::getline(written, actual)) << "missing: " << path << ":" << number;
    ASSERT_EQ(actual, wanted) << path << ":" << number;
  }
  ASSERT_FALSE(std::getline(written, actual)) << "not in " << path << ": " << actual;
}

}  // namespace scripted
