// Which command lines are taken, and which are refused before anything happens.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "command_line.h"

namespace pelmar::cli {
namespace {

// The status that ends the program at once, if any.
std::optional<int> parse(CommandLine& line, const std::string& text) {
  std::istringstream stream("modem_api_test " + text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const auto status = line.parse(static_cast<int>(arguments.size()), arguments.data());
  testing::internal::GetCapturedStdout();
  testing::internal::GetCapturedStderr();
  return status;
}

std::optional<int> parse(const std::string& text) {
  CommandLine line;
  return parse(line, text);
}

TEST(CommandLine, TakesGlobalOptionsOnBothSidesOfTheCommand) {
  for (const char* text :
       {"--json --modem @x nv read 10", "nv --modem @x read 10 --json", "nv read --json 10 --modem @x"}) {
    CommandLine line;
    EXPECT_EQ(parse(line, text), std::nullopt) << text;
    EXPECT_TRUE(line.settings().json) << text;
    EXPECT_EQ(line.settings().modem, "@x") << text;
  }
}

TEST(CommandLine, TakesOptionsUpToTheirLimits) {
  for (const char* text : {"nv read 0xFFFFFFFF --qualifier 255 --index 65535",
                           "nv delete 1",
                           "efs read 1 --qualifier 65535",
                           "efs-path write /a 00 --index 255",
                           "rfnv read 1 -o out",
                           "efs-sync --mode -128 --value 1 --option 65535",
                           "info",
                           "events --count 1 --for 2 --services",
                           "signal",
                           "signal --sub 1 --watch --rate 50 --for 3 --csv a --plot b",
                           "sys-mode --sub 1",
                           "feature on --number 4294967295",
                           "stats get lte-pcc 0x67 --sub 1 --slot 65535 --parameters 0a1b",
                           "stats clear 1 2 3 4 5 6 7 8 9 10",
                           "stats register lte-pcc --parameter 1 2 3 4 5 --option1 1 --option2 65535 --count 3",
                           "signal --csv a --append --plot b --force",
                           "cell-info --wait --timeout 1",
                           "cell-info --sub 1",
                           "drx",
                           "lock lte 1:2 3:4 --sub 1 --yes",
                           "lock lte clear",
                           "avoid-trm on --sub 0",
                           "nr-mode 2 -y",
                           "sar set 4294967295 --hold 5",
                           "power vote --for 1 --device modem",
                           "power watch --count 4 --for 2",
                           "ssr set dump",
                           "ssr wait 0",
                           "props set a b"}) {
    EXPECT_EQ(parse(text), std::nullopt) << text;
  }
}

TEST(CommandLine, RefusesWhatItCannotCarryOut) {
  for (const std::string& text : std::vector<std::string>{"",
                                                          "bogus",
                                                          "nv",
                                                          "nv bogus",
                                                          "nv read",
                                                          "nv read x",
                                                          "nv read -1",
                                                          "nv read 4294967296",
                                                          "nv read 1 --qualifier 256",
                                                          "nv read 1 --index 65536",
                                                          "nv read 1 out",
                                                          "nv read 1 @",
                                                          "nv read 1 @a -o b",
                                                          "nv write 1 0a --text a",
                                                          "efs read 1 --index 1",
                                                          "rfnv read 1 --qualifier 1",
                                                          "efs-path read /" + std::string(100, 'a'),
                                                          "efs-sync --mode 128",
                                                          "signal --rate 51",
                                                          "info --timeout 0",
                                                          "tx-power --sub 1 --max",
                                                          "feature maybe",
                                                          "stats get",
                                                          "stats get lte-pcc2",
                                                          "stats clear 1 2 3 4 5 6 7 8 9 10 11",
                                                          "stats register 1 --parameter 1 2 3 4 5 6",
                                                          "stats register 1 --option1 65536",
                                                          "stats deregister 1",
                                                          "stats report",
                                                          "cell-info --sub 2",
                                                          "lock lte",
                                                          "avoid-trm 1",
                                                          "nr-mode 3",
                                                          "sar",
                                                          "props get",
                                                          "reset now",
                                                          "power",
                                                          "ssr set invalid",
                                                          "ssr wait -1",
                                                          "info --bogus"}) {
    EXPECT_EQ(parse(text), 2) << text;
  }
  EXPECT_EQ(parse("efs-path read /" + std::string(99, 'a')), std::nullopt);
}

TEST(CommandLine, HelpIsASuccess) {
  EXPECT_EQ(parse("--help"), 0);
  EXPECT_EQ(parse("nv write --help"), 0);
}

}  // namespace
}  // namespace pelmar::cli
