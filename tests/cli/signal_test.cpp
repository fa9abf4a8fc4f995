// Readings as text, as rows of a file, as a picture, and as the live view in terminals of any size.

#include <algorithm>
#include <regex>

#include "client_program.h"
#include "modem_hydra.h"
#include "signal/live_view.h"
#include "signal/recording.h"

namespace pelmar::cli {
namespace {

constexpr CarrierName kPrimary{Technology::kLte, 0};

constexpr Levels two(double first, double second) {
  return {first, second, kNoLevel, kNoLevel};
}

// Everything that a reading can have: two LTE carriers, one of them measured on two chains, NR, gains and antennas; and
// a subscription without values.
Reading full_reading(int seconds = 0) {
  setenv("TZ", "UTC", 1);
  SubscriptionReading sub;
  sub.mode = MODEM_SYS_MODE_LTE;
  sub.tx_power = -7;
  const Levels gain = {-50, -51, -52, -53};
  sub.carriers = {
      {kPrimary, 1300, 101, {-80.4, -81, -82, -83}, {-8, -8, -8, -8}, gain, {23, 22, 21, 20}},
      {{Technology::kLte, 2}, 6300, 503, two(-125, -110.5), kNoLevels, kNoLevels, two(-3, 1)},
      {{Technology::kNr, 0}, {}, {}, {-90, -91, -92, -93}, two(-9, kNoLevel), {-60, -61, -62, -63}, two(15, 14)}};
  sub.wcdma_gain = two(-70, -71);
  sub.rx_antennas = {{0, 1}, {1, 2}, {2, 3}, {3, 0}};
  sub.tx_antennas = {{0, 0}, {2, 2}};
  sub.transmit_switching = TransmitSwitching{4, 2, 2, {0, 1}};
  SubscriptionReading nothing;
  nothing.sub = 1;
  return {WallClock::time_point(std::chrono::milliseconds(1700000000007)) + std::chrono::seconds(seconds),
          {sub, nothing}};
}

TEST(Reading, IsShownAsTextLineDocumentAndRows) {
  const Reading reading = full_reading();
  expect_golden("reading.txt", reading_text(reading) + reading_line(reading) + "\n" + reading_json(reading).dump() +
                                   "\n" + csv_header() + csv_rows(reading));
}

// --- the live view ---

const LiveState kState = {"@modem", "", 12, 10};

std::vector<std::string> view(TerminalSize size, const Style& style = {}, const LiveState& state = kState) {
  Shown shown{full_reading(), {}};
  for (const double level : {-100.0, -60.0, kNoLevel, -84.9, -75.1, -73.6, -80.4}) {
    Reading& reading = shown.reading;
    reading.time += std::chrono::seconds(1);
    reading.subs[0].carriers[0].rsrp[0] = level;
    reading.subs[0].carriers[2].rsrp = {level, level, level, level};
    reading.subs[0].carriers[1].rsrp[1] = level < -80 ? -110.5 : -110.4;  // a small change
    shown.history.add(reading, Clock::time_point(reading.time.time_since_epoch()));
  }
  return live_view(shown, state, size, style);
}

// The picture in terminals of several sizes. The golden file has a caret for each escape character.
TEST(LiveView, IsDrawnAsInTheGoldenFile) {
  const Style colours = {true};
  LiveState away = kState;
  away.problem = "MODEM AWAY 3 s: its service is down";
  LiveState scrolled = {.modem = "@modem", .problem = "", .is_paused = true};
  scrolled.only_sub = 0;
  scrolled.hidden_rows = 2;
  scrolled.hidden_seconds = 3;
  std::string text;
  for (const auto& lines :
       {view({80, 24}), view({80, 8}), view({60, 24}), view({40, 24}), view({12, 24}), view({80, 24}, colours),
        view({80, 24}, colours, away), view({80, 24}, {false, Glyphs::kAscii}), view({80, 5}, {}, scrolled)}) {
    for (const std::string& line : lines) text += line + "|\n";
    text += "\n";
  }
  std::replace(text.begin(), text.end(), '\033', '^');
  expect_golden("screen.txt", text);
}

// Characters, without colour sequences.
size_t display_width(const std::string& line) {
  static const std::regex colour("\033\\[[0-9;]*m");
  const std::string text = std::regex_replace(line, colour, "");
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
}

TEST(LiveView, FitsEveryTerminal) {
  for (const Style& style : {Style{false, Glyphs::kBlocks}, Style{true, Glyphs::kAscii}}) {
    for (size_t columns = 1; columns < 260; ++columns) {
      for (const size_t rows : {1, 2, 5, 12, 24, 100}) {
        LiveState state = kState;
        state.hidden_rows = columns % 4;
        const std::vector<std::string> lines = view({columns, rows}, style, state);
        ASSERT_LE(lines.size(), rows) << columns;
        for (const std::string& line : lines) ASSERT_LE(display_width(line), columns) << line;
      }
    }
  }
}

TEST(History, HasOneColumnPerSecondIndependentOfTheWallClock) {
  History history;
  Reading reading = full_reading();
  const auto read_at = [&](int milliseconds, double level) {
    reading.subs[0].carriers[0].rsrp = two(level, level - 1);
    history.add(reading, Clock::time_point(std::chrono::milliseconds(milliseconds)));
  };
  for (const auto& [time, level] : {std::pair(0, -80), {500, -81}, {1000, -82}, {2300, -83}}) read_at(time, level);
  history.add_gap(Clock::time_point(std::chrono::milliseconds(3100)));
  EXPECT_THAT(history.of(0, kPrimary), testing::ElementsAre(-81, -82, -83, testing::IsNan()));
  EXPECT_TRUE(history.of(0, {Technology::kLte, 5}).empty());
  for (int second = 4; second < 400; ++second) read_at(1000 * second, -84);
  EXPECT_EQ(history.of(0, kPrimary).size(), History::kMostColumns);
}

// --- recordings and their picture ---

// The clock is set back during the recording, the serving cell changes at second 6, and the modem is away from second 8
// to 14.
TEST(Plot, IsDrawnAsInTheGoldenFileFromReadingsAndFromTheirRows) {
  Recording recording;
  std::string rows = csv_header();
  for (const int second : {3, 4, 0, 1, 2, 5, 6, 7, 15, 16}) {
    Reading reading = full_reading(second);
    reading.subs[0].carriers[0].rsrp[0] += second;
    reading.subs[0].carriers[0].pci = second < 6 ? 101 : 102;
    reading.subs[0].tx_power = second;
    reading.subs[1].carriers = {reading.subs[0].carriers[0]};
    reading.subs[1].carriers[0].rsrp[0] -= 30;
    add_reading(recording, reading);
    rows += csv_rows(reading);
  }
  expect_golden("picture.svg", plot_svg(recording, "A & <B>"));
  std::istringstream stream(rows);
  Recording from_csv;
  add_csv(from_csv, stream, "rows");
  EXPECT_EQ(plot_svg(from_csv, "A & <B>"), plot_svg(recording, "A & <B>"));
}

}  // namespace
}  // namespace pelmar::cli
