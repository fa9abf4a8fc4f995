// The live view's lines, in terminals of any size.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "readings.h"
#include "signal/bars.h"
#include "signal/live_view.h"

namespace pelmar::cli {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::vector<std::string> view(TerminalSize size, const std::string& trouble = "", const Style& style = {}) {
  const Reading reading = full_reading();
  History history;
  history.add(reading, Clock::time_point());
  return live_view(reading, history, {"@modem", trouble, 12, 10}, size, style);
}

TEST(LiveView, ShowsEveryChainOfEveryCarrierIn80Columns) {
  const std::vector<std::string> lines = view({80, 24});
  ASSERT_EQ(lines.size(), 17U);
  EXPECT_THAT(lines[0], HasSubstr("12 readings, 10 a second  Ctrl-C ends  @modem"));
  EXPECT_EQ(lines[1], "        channel PCI  rx0       rx1       rx2       rx3        SNR RSRP, 14 s");
  EXPECT_EQ(lines[2], "subscription 0: LTE, transmit power -7 dBm");
  EXPECT_EQ(lines[3], "LTE pcc    1300 101  -80 ███   -81 ██▉   -82 ██▉   -83 ██▊   23.0              ▅");
  EXPECT_EQ(lines[4], "LTE scc2   6300 503 -125 ▏    -111 █       -         -        1.0              ▅");
  EXPECT_EQ(lines[5], "NR pcc        -   -  -90 ██▍   -91 ██▎   -92 ██▎   -93 ██▏   15.0              ▅");
  EXPECT_EQ(lines[6], "NR rx                -60 ██▋   -61 ██▋   -62 ██▌   -63 ██▌ ");
  EXPECT_EQ(lines[8], "antennas rx 1 2 3 0 (was 0 1 2 3), tx 0 2, configuration 1 (was 0)");
  EXPECT_EQ(lines[10].substr(0, 14), "subscription 1");
}

TEST(LiveView, FitsEveryTerminal) {
  for (const auto& [with_colour, glyphs] : {std::pair(false, Glyphs::kBlocks), {true, Glyphs::kAscii}}) {
    for (size_t columns = 1; columns < 260; ++columns) {
      for (const size_t rows : {1, 2, 5, 12, 24, 100}) {
        const std::vector<std::string> lines = view({columns, rows}, "", {with_colour, glyphs});
        ASSERT_LE(lines.size(), rows) << columns;
        for (const std::string& line : lines) ASSERT_LE(display_width(line), columns) << line;
      }
    }
  }
}

TEST(LiveView, LeavesOutWhatMattersLeastAndSaysSo) {
  const std::vector<std::string> lines = view({80, 8});
  ASSERT_EQ(lines.size(), 8U);
  EXPECT_THAT(lines[0], StartsWith("(8 lines hidden)  "));
  std::vector<std::string> starts;
  for (size_t i = 1; i < lines.size(); ++i) starts.push_back(lines[i].substr(0, 14));
  EXPECT_THAT(starts, ElementsAre("        channe", "subscription 0", "LTE pcc    130", "NR pcc        ",
                                  "subscription 1", "LTE pcc    130", "NR pcc        "));
}

TEST(LiveView, NarrowTerminalsKeepTheNumbers) {
  EXPECT_EQ(view({60, 24})[3], "LTE pcc    1300 101  -80 █▌  -81 █▌  -82 █▍  -83 █▍  23.0");
  EXPECT_EQ(view({40, 24})[3], "LTE pcc   -80  -81  -82  -83  23.0");
  EXPECT_EQ(view({12, 24})[3], "LTE pcc   -8");
}

TEST(LiveView, TellsThatTheModemIsAwayAndKeepsTheLastReading) {
  const std::vector<std::string> lines = view({80, 24}, "MODEM AWAY 3 s: its service is down", {true});
  EXPECT_THAT(lines[0], HasSubstr("MODEM AWAY 3 s"));
  EXPECT_THAT(lines[3], HasSubstr("\033[2m███"));
  EXPECT_THAT(view({80, 24}, "", {true})[3], HasSubstr("\033[32m███"));
  EXPECT_THAT(view({80, 24})[3], Not(HasSubstr("\033")));
}

TEST(LiveView, ClippedTextEndsItsColours) {
  EXPECT_EQ(clip("ab\033[1mcd\033[0mef", 3), "ab\033[1mc\033[0m");
  EXPECT_EQ(clip("ab\033[1mcd\033[0mef", 5), "ab\033[1mcd\033[0me");
  EXPECT_EQ(clip("█▌x", 2), "█▌");
  EXPECT_EQ(display_width("\033[1m█▌\033[0mx"), 3U);
}

TEST(LiveView, ColoursTellGoodFromPoorRsrpButNotGain) {
  const std::vector<std::string> lines = view({80, 24}, "", {true});
  EXPECT_THAT(lines[4], AllOf(HasSubstr("-125 \033[31m"), HasSubstr("-111 \033[31m")));
  EXPECT_THAT(lines[6], HasSubstr("-60 \033[36m"));
  EXPECT_THAT(lines[7], AllOf(HasSubstr("-70 \033[36m"), Not(HasSubstr("\033[32m"))));
}

TEST(LiveView, DrawsInAsciiWhereTheTerminalHasNoBlocks) {
  for (const std::string& line : view({120, 24}, "", {true, Glyphs::kAscii})) {
    EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char each) { return (each & 0x80) == 0; })) << line;
  }
  EXPECT_EQ(view({80, 24}, "", {false, Glyphs::kAscii})[3],
            "LTE pcc    1300 101  -80 ###   -81 ###   -82 ###   -83 ###   23.0              +");
  EXPECT_EQ(glyphs_of("UTF-8"), Glyphs::kBlocks);
  for (const char* codeset : {"ANSI_X3.4-1968", "ISO-8859-1", ""}) EXPECT_EQ(glyphs_of(codeset), Glyphs::kAscii);
}

TEST(LiveView, AnEscapeWithoutAColourIsACharacter) {
  for (const char* text : {"\033", "a\033", "\033[", "\033[1;3", "\033[2J", "\033[1;xm", "\033m"}) {
    EXPECT_EQ(display_width(text), std::string_view(text).size()) << text + 1;
    EXPECT_EQ(clip(text, 80), text);
    EXPECT_EQ(clip(text, 1), std::string(text, 1));
  }
}

TEST(Bars, ShowTheLevelWithinTheRange) {
  const struct {
    double level;
    const char* text;
  } kCases[] = {{-200, "▏   "},  {-100, "▏   "}, {-75, "█   "}, {-50, "██  "},
                {-48.4, "██▏ "}, {0, "████"},    {50, "████"}};
  for (const auto& each : kCases) EXPECT_EQ(bar(each.level, {-100, 0}, 4, Glyphs::kBlocks), each.text) << each.level;
  EXPECT_EQ(bar(kNoLevel, {-100, 0}, 4, Glyphs::kBlocks), "    ");
  EXPECT_EQ(bar(-200, {-100, 0}, 4, Glyphs::kAscii), "#   ");
  EXPECT_EQ(bar(-30, {-100, 0}, 4, Glyphs::kAscii), "### ");
  EXPECT_EQ(bar(kNoLevel, {-100, 0}, 4, Glyphs::kAscii), "    ");
}

TEST(Bars, HistoryIsScaledToItsRangeButNotToNoise) {
  const double levels[] = {-100, kNoLevel, -90, -80};
  EXPECT_EQ(sparkline(levels, 6, 10, Glyphs::kBlocks), "  ▁ ▅█");
  EXPECT_EQ(sparkline(levels, 2, 10, Glyphs::kBlocks), "▁█");
  EXPECT_EQ(sparkline(levels, 6, 10, Glyphs::kAscii), "  . +@");
  const double steady[] = {-80, -80.1, -80};
  EXPECT_EQ(sparkline(steady, 3, 12, Glyphs::kBlocks), "▅▄▅");
  EXPECT_EQ(sparkline({}, 3, 12, Glyphs::kBlocks), "   ");
}

TEST(History, HasAColumnASecondWhateverTheWallClockSays) {
  History history;
  Reading reading = full_reading();
  const CarrierName carrier{Technology::kLte, 0};
  const auto read_at = [&](int milliseconds, double level) {
    reading.subs[0].carriers[0].rsrp = {level, level - 1, kNoLevel, kNoLevel};
    history.add(reading, Clock::time_point(std::chrono::milliseconds(milliseconds)));
  };
  read_at(0, -80);
  read_at(500, -81);
  read_at(1000, -82);
  read_at(2300, -83);
  EXPECT_THAT(history.of(0, carrier), ElementsAre(-81, -82, -83));
  history.add_gap(Clock::time_point(std::chrono::milliseconds(3100)));
  EXPECT_THAT(history.of(0, carrier), ElementsAre(-81, -82, -83, testing::IsNan()));
  EXPECT_TRUE(history.of(0, {Technology::kLte, 5}).empty());
  for (int second = 4; second < 400; ++second) read_at(1000 * second, -84);
  EXPECT_EQ(history.of(0, carrier).size(), History::kMostColumns);
}

}  // namespace
}  // namespace pelmar::cli
