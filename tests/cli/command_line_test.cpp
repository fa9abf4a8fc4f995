// Which command lines are taken, and which are refused before anything happens.
#include "command_line.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace pelmar::cli {
namespace {

// The status that ends the program at once, or -1 where the command would run.
int parse(const std::string& text) {
  std::istringstream stream("modem_api_test " + text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  CommandLine line;
  const auto status = line.parse(static_cast<int>(arguments.size()), arguments.data());
  testing::internal::GetCapturedStdout();
  testing::internal::GetCapturedStderr();
  return status.value_or(-1);
}

TEST(CommandLine, TakesOptionsUpToTheirLimitsAndRefusesTheRest) {
  const std::string longest(99, 'a');
  const struct {
    int status;
    std::string lines;  // with ; between them
  } kCases[] = {
      {-1,
       "--json --modem @x nv read 10; nv --modem @x read 10 --json;"
       "nv read 0xFFFFFFFF --qualifier 255 --index 65535; nv delete 1; efs read 1 --qualifier 65535; rfnv read 1 -o a;"
       "efs-path write /a 00 --index 255; efs-path read /" +
           longest + "; efs-sync --mode -128 --value 0xFf --option 65535"},
      {-1,
       "info --wait --timeout 1; events --count 1 --for 2 --services; sys-mode --sub 1; drx; nr-mode 2 -y; props set a "
       "b;"
       "signal --sub 1 --watch --rate 50 --for 3 --csv a --plot b --append --force; feature on --number 4294967295;"
       "lock lte 1:2 3:4 --sub 1 --yes; lock lte clear; avoid-trm on --sub 0; sar set 4294967295 --hold 5;"
       "power vote --for 1 --device modem; power watch --count 4 --for 2; ssr set dump; ssr wait 0"},
      {-1,
       "stats get lte-pcc 0x67 --sub 1 --slot 65535 --parameters 0a1b; stats clear 1 2 3 4 5 6 7 8 9 10;"
       "stats register lte-pcc --parameter 1 2 3 4 5 --option1 1 --option2 65535 --count 3"},
      {0, "--help; nv write --help"},
      {2,
       "; bogus; nv; nv bogus; nv read; nv read x; nv read -1; nv read 4294967296; nv read 0x; nv read 1x; nv read +1; "
       "nv read 1e2; nv read --1; nv read 1 --qualifier 256; lock lte;"
       "nv read 1 --index 65536; nv read 1 out; nv read 1 @; nv read 1 @a -o b; nv write 1 0a --text a; props get; sar;"
       "efs read 1 --index 1; rfnv read 1 --qualifier 1; efs-path read /a" +
           longest + "; efs-sync --mode 128; power"},
      {2,
       "signal --rate 51; signal --rate 0; signal --sub 2; info --timeout 0; info --bogus; tx-power --sub 1 --max;"
       "feature maybe; cell-info --sub 2; avoid-trm 1; nr-mode 3; reset now; ssr set invalid; ssr wait -1;"
       "stats get; stats get lte-pcc2; stats clear 1 2 3 4 5 6 7 8 9 10 11; stats register 1 --parameter 1 2 3 4 5 6;"
       "stats register 1 --option1 65536; stats deregister 1; stats report"},
  };
  for (const auto& each : kCases) {
    std::istringstream lines(each.lines);
    for (std::string text; std::getline(lines, text, ';');) {
      EXPECT_EQ(parse(text), each.status) << text;
    }
  }
}

}  // namespace
}  // namespace pelmar::cli
