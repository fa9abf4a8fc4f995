// Readings as text, as JSON, as rows of a file, and as a picture.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "failure.h"
#include "json.h"
#include "readings.h"
#include "signal/axis.h"
#include "signal/plot.h"
#include "signal/reading_text.h"
#include "signal/recording.h"
#include "statistic_values.h"
#include "time_text.h"

namespace pelmar::cli {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr CarrierName kPrimary{Technology::kLte, 0};

TEST(ReadingText, TellsEverythingOnce) {
  const std::string text = reading_text({kTestTime, {full_subscription(1)}});
  EXPECT_THAT(text, HasSubstr("subscription 1: LTE, transmit power -7 dBm\n"
                              "  LTE pcc  channel 1300  PCI 101\n"
                              "    RSRP dBm        -80.4    -81.0    -82.0    -83.0\n"));
  EXPECT_THAT(text, HasSubstr("  LTE scc2  channel 6300  PCI 503\n"
                              "    RSRP dBm       -125.0   -110.5        -        -\n"
                              "    SNR dB           -3.0      1.0        -        -\n"
                              "  NR pcc\n"));
  EXPECT_THAT(text, HasSubstr("  receive gain\n"
                              "    NR dBm          -60.0    -61.0    -62.0    -63.0\n"
                              "    WCDMA dBm       -70.0    -71.0        -        -\n"
                              "  antennas  rx 1 2 3 0 (was 0 1 2 3), tx 0 2, configuration 1 (was 0)\n"));
}

TEST(ReadingText, LineHasTheCarriersInTheirPlaces) {
  const std::string line = reading_line({kTestTime, {full_subscription(0)}});
  EXPECT_EQ(line.substr(12), "  sub 0  LTE   tx -7  LTE -80/23 - -111/1  NR -90/15");
  SubscriptionReading nothing;
  EXPECT_EQ(reading_line({kTestTime, {nothing}}).substr(12), "  sub 0  no mode       ");
}

TEST(ReadingJson, HasNullForWhatWasNotMeasured) {
  SubscriptionReading nothing;
  nothing.sub = 1;
  const Json document = reading_json({kTestTime, {full_subscription(0), nothing}});
  EXPECT_EQ(document["time"], "2023-11-14T22:13:20.007Z");
  const Json& sub = document["subscriptions"][0];
  EXPECT_EQ(sub["carriers"][1].dump(), R"({"carrier":"lte_scc2","channel":6300,"pci":503,)"
                                       R"("rsrp":[-125.0,-110.5,null,null],"snr":[-3.0,1.0,null,null]})");
  EXPECT_EQ(sub["gain"]["nr"].dump(), "[-60.0,-61.0,-62.0,-63.0]");
  EXPECT_EQ(sub["rx_antennas"][3].dump(), R"({"before":3,"now":0})");
  EXPECT_EQ(document["subscriptions"][1].dump(), R"({"sub":1,"mode":null,"tx_power":null,"carriers":[]})");
}

TEST(Time, IsReadBackAsItIsWritten) {
  EXPECT_EQ(parse_utc_text("2023-11-14T22:13:20.007Z"), kTestTime);
  for (const char* text : {"", "2023-11-14", "2023-11-14T22:13:20.007", "2023-11-14T22:13:20.007Zx",
                           "2023-13-14T22:13:20.007Z", "2023-02-30T22:13:20.007Z", "2023-11-14T22:13:20.07Z"}) {
    EXPECT_EQ(parse_utc_text(text), std::nullopt) << text;
  }
}

// --- CSV ---

Recording from_csv(const std::string& text, std::optional<uint32_t> only_sub = std::nullopt) {
  std::istringstream stream(text);
  Recording recording;
  recording.add_csv(stream, "the file 'a'", only_sub);
  return recording;
}

TEST(Csv, KeepsWhatThePictureNeeds) {
  Recording recording;
  recording.add(full_reading());
  const Recording back = from_csv(csv_header() + csv_rows(full_reading()));
  ASSERT_EQ(back.tracks().size(), 6U);
  EXPECT_EQ(plot_svg(back), plot_svg(recording));
  const TrackPoint point = back.tracks().at({1, {Technology::kLte, 2}}).front();
  EXPECT_EQ(point.rsrp, -110.5);
  EXPECT_EQ(point.snr, 1);
}

TEST(Csv, HasACellForEveryColumn) {
  std::istringstream lines(csv_header() + csv_rows(full_reading()));
  for (std::string line; std::getline(lines, line);) EXPECT_EQ(std::count(line.begin(), line.end(), ','), 26) << line;
  EXPECT_THAT(csv_rows(full_reading()),
              HasSubstr("2023-11-14T22:13:20.007Z,1,9,-7,nr_pcc,,,-90.0,-91.0,-92.0,-93.0,-9.0,,,,-60.0,-61.0,-62.0,"
                        "-63.0,15.0,14.0,13.0,12.0,1,2,3,0\n"));
}

TEST(Csv, FindsColumnsByName) {
  const Recording recording =
      from_csv("note,carrier,time,sub,rsrp_2_dbm\r\nx,lte_pcc,2023-11-14T22:13:20.007Z,1,-77\r\n");
  EXPECT_EQ(recording.tracks().at({1, kPrimary}).front().rsrp, -77);
}

TEST(Csv, IsReadUpToACutLastLine) {
  const std::string rows =
      "time,sub,carrier,rsrp_0_dbm\n2023-11-14T22:13:20.007Z,0,lte_pcc,-77\n2023-11-14T22:13:20.007Z,1,lte_pcc,-7";
  EXPECT_EQ(from_csv(rows).tracks().size(), 1U);
  EXPECT_EQ(from_csv(rows + "8\n").tracks().size(), 2U);
  EXPECT_TRUE(from_csv(rows, 1).is_empty());
  EXPECT_EQ(from_csv(rows + "8\n", 1).tracks().begin()->first, Recording::Key(1, kPrimary));
}

TEST(Csv, TracksAreInTheOrderOfTime) {
  const std::string heading = "time,sub,carrier,rsrp_0_dbm\n";
  const std::string rows[] = {"2023-11-14T22:13:20.007Z,0,lte_pcc,-77\n", "2023-11-14T22:13:21.007Z,0,lte_pcc,-78\n",
                              "2023-11-14T22:13:22.007Z,0,lte_pcc,-79\n"};
  EXPECT_EQ(plot_svg(from_csv(heading + rows[2] + rows[0] + rows[1])),
            plot_svg(from_csv(heading + rows[0] + rows[1] + rows[2])));
}

TEST(Csv, ARecordingSurvivesThatTheClockIsSetBack) {
  Recording recording;
  for (const int seconds : {10, 11, 4, 5, 12}) {
    Reading reading = full_reading();
    reading.time += std::chrono::seconds(seconds);
    recording.add(reading);
  }
  std::vector<int64_t> times;
  for (const TrackPoint& point : recording.tracks().at({0, kPrimary})) {
    times.push_back(std::chrono::duration_cast<std::chrono::seconds>(point.time - kTestTime).count());
  }
  EXPECT_THAT(times, ElementsAre(4, 5, 10, 11, 12));
}

TEST(Csv, RefusesWhatIsNoRecordingAndShowsTheLine) {
  const struct {
    const char* rows;
    const char* reason;
  } kCases[] = {
      {"", "first line"},
      {"a,b\n", "first line"},
      {"time,carrier,sub\nnow,lte_pcc,0\n", "line 2: 'now' is no time"},
      {"time,carrier,sub\n2023-11-14T22:13:20.007Z,lte,0\n", "line 2: 'lte' is no carrier"},
      {"time,carrier,sub\n2023-11-14T22:13:20.007Z,lte_pcc,2\n", "line 2: '2' is no sub"},
      {"time,carrier,sub,snr_0_db\n\n2023-11-14T22:13:20.007Z,nr_scc2,0,nan\n", "line 3: 'nan' is no snr_0_db"},
      {"time,carrier,sub,snr_0_db\n2023-11-14T22:13:20.007Z,nr_scc2,0,1x\n", "line 2: '1x' is no snr_0_db"},
  };
  for (const auto& each : kCases) {
    try {
      from_csv(each.rows);
      ADD_FAILURE() << each.rows;
    } catch (const Failure& failure) {
      EXPECT_THAT(failure.what(), HasSubstr(each.reason));
    }
  }
}

// --- picture ---

size_t count(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++found;
  return found;
}

// A recording of one carrier with a reading each 100 ms, but for those in the gap.
Recording recording_of(int readings, int gap_begin = 0, int gap_end = 0) {
  Recording recording;
  for (int i = 0; i < readings; ++i) {
    if (i >= gap_begin && i < gap_end) continue;
    Reading reading{kTestTime + std::chrono::milliseconds(100 * i), {SubscriptionReading{}}};
    Carrier carrier{kPrimary, {}, {}};
    carrier.rsrp[1] = -100 + i % 10;
    carrier.snr[0] = i % 7;
    reading.subs[0].carriers = {carrier};
    recording.add(reading);
  }
  return recording;
}

TEST(Plot, HasAxesUnitsTicksAndALegend) {
  const std::string svg = plot_svg(recording_of(100));
  for (const char* text : {">RSRP [dBm]<", ">SNR [dB]<", ">time since the start [s]<", ">sub 0 LTE pcc<", ">-100<",
                           ">-92<", ">0<", ">8<", "2023-11-14 22:13:20 UTC, 9.9 s"}) {
    EXPECT_THAT(svg, HasSubstr(text));
  }
  EXPECT_EQ(count(svg, "<polyline"), 2U);
  EXPECT_THAT(svg, Not(HasSubstr("nan")));
}

TEST(Plot, InterruptsTheLineWhereTheModemWasAway) {
  EXPECT_EQ(count(plot_svg(recording_of(100, 50, 52)), "<polyline"), 2U);
  EXPECT_EQ(count(plot_svg(recording_of(100, 50, 60)), "<polyline"), 4U);
  EXPECT_EQ(count(plot_svg(recording_of(1)), "<polyline"), 2U);
}

TEST(Plot, DrawsNoMoreThanThePictureCanShow) {
  EXPECT_LT(plot_svg(recording_of(100'000)).size(), 200'000U);
  EXPECT_GT(plot_svg(recording_of(700)).size(), 700U * 2 * 10);
}

TEST(Axis, TicksAreRoundNumbers) {
  const struct {
    double low;
    double high;
    std::vector<double> ticks;
  } kCases[] = {{-103.2, -81, {-105, -100, -95, -90, -85, -80}},
                {-80, -80, {-80, -79.8}},
                {-0.4, 0.3, {-0.4, -0.2, 0, 0.2, 0.4}},
                {-140, 0, {-140, -120, -100, -80, -60, -40, -20, 0}}};
  for (const auto& each : kCases) {
    const Axis axis = level_axis(each.low, each.high, 7);
    EXPECT_THAT(axis.ticks(), testing::Pointwise(testing::DoubleNear(1e-9), each.ticks)) << each.low;
    EXPECT_LE(axis.low, each.low);
    EXPECT_GE(axis.high, each.high);
  }
}

TEST(Axis, TimeIsCountedAsPeopleDo) {
  const struct {
    double seconds;
    const char* unit;
    const char* second_tick;
  } kCases[] = {{0, "s", "0.2"},
                {10, "s", "2"},
                {100, "s", "15"},
                {300, "min:s", "1:00"},
                {10'000, "h:min:s", "0:30:00"},
                {500'000, "h:min:s", "16:00:00"}};
  for (const auto& each : kCases) {
    const Axis axis = time_axis(each.seconds, 9);
    EXPECT_EQ(time_unit(axis), each.unit) << each.seconds;
    EXPECT_EQ(time_label(axis, axis.ticks().at(1)), each.second_tick) << each.seconds;
    EXPECT_LE(axis.ticks().size(), 10U) << each.seconds;
  }
}

// --- statistics values ---

TEST(StatisticValues, AreDecodedAsFarAsTheyGo) {
  const std::vector<uint8_t> uplink = {1, 0xF6, 0xFF, 103, 23, 0, 0xFF, 0xFF};
  Json whole;
  put_statistic(whole, 0x62, uplink);
  EXPECT_EQ(whole.dump(), R"({"name":"lte-uplink","fields":{"version":1,"pusch_tx_power":-10,"dl_path_loss":103,)"
                          R"("max_power":23,"pusch_ex_tx_power":65535}})");
  EXPECT_EQ(statistic_fields_text(0x62, std::span(uplink).first(3)), "version 1, pusch_tx_power -10");
  EXPECT_EQ(statistic_fields_text(0x62, std::span(uplink).first(2)), "version 1");
  EXPECT_EQ(statistic_fields_text(0x6f, std::vector<uint8_t>{1, 0xAE, 0xFC, 0xFF, 0xFF}), "version 1, rx_prx -850");
  const std::vector<uint8_t> mode = {1, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(statistic_fields_text(0x2c, mode), "stack_max 1, rat 4294967295");
  Json unknown;
  put_statistic(unknown, 0x1234, uplink);
  EXPECT_TRUE(unknown.empty());
}

TEST(StatisticValues, FloatsAndRepeatedNames) {
  std::vector<uint8_t> value(52);
  value[6] = 0x60;
  value[7] = 0xC0;  // -3.5
  value[43] = 0x3F;
  value[42] = 0x80;  // 1
  Json object;
  put_statistic(object, 0x5a, value);
  EXPECT_EQ(object["fields"]["tx_power_pusch"], -3.5);
  EXPECT_EQ(object["fields"]["pathloss"].dump(), "[0.0,1.0,0.0,0.0]");
}

}  // namespace
}  // namespace pelmar::cli
