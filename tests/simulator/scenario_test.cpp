// Scenarios: what they say at a moment, and what is wrong with one.
#include <gtest/gtest.h>

#include "scenario/scenario.h"

namespace pelmar::sim::test {

namespace {

double number_of(const Scenario& scenario, const char* statistic, const char* field, double seconds) {
  const StatisticRow& row = *find_statistic(statistic);
  const auto found = scenario.at({0, row.id}, seconds);
  return found.value().fields.at(static_cast<size_t>(row.find_field(field) - row.fields.data())).value();
}

TEST(Scenario, TheExampleSaysWhatItDescribes) {
  const Scenario tunnel = load_scenario(EXAMPLE_SCENARIO);
  EXPECT_EQ(number_of(tunnel, "lte-pcc", "rsrp_rx0", 12), -1015) << "half of the way into the tunnel";
  EXPECT_EQ(number_of(tunnel, "lte-pcc", "snr_rx1", 52), 57.5) << "in the second round";
  EXPECT_EQ(number_of(tunnel, "lte-pcc", "pci", 11.9), 101);
  EXPECT_EQ(number_of(tunnel, "lte-pcc", "pci", 12), 104);
  EXPECT_EQ(number_of(tunnel, "lte-uplink", "dl_path_loss", 0), 103) << "before its first point";
  EXPECT_EQ(number_of(tunnel, "lte-uplink", "dl_path_loss", 39), 103) << "after its last point";
  EXPECT_TRUE(tunnel.at({0, 0x87}, 10)->is_there);
  EXPECT_FALSE(tunnel.at({0, 0x87}, 27.9)->is_there);
  for (const char* chain : {"rsrp_rx0", "rsrp_rx1", "rsrp_rx2", "rsrp_rx3"}) {
    EXPECT_LT(number_of(tunnel, "lte-pcc", chain, 20), -1100) << "no chain stays strong in the tunnel";
  }
  EXPECT_FALSE(tunnel.at({1, 0x52}, 10)) << "nothing of the second subscription";
}

TEST(Scenario, WithoutRepetitionItStays) {
  const Scenario scenario = parse_scenario(
      R"({"tracks": [{"sub": 0, "statistic": 98, "fields": ["max_power"], "points": [[1, 10], [3, 20]]}]})");
  EXPECT_EQ(number_of(scenario, "lte-uplink", "max_power", 1.5), 12.5);
  EXPECT_EQ(number_of(scenario, "lte-uplink", "max_power", 1e6), 20);
}

// A track with these members in the place of its own.
std::string with_track(const std::string& members) {
  return R"({"repeat": 10, "tracks": [{"sub": 0, "statistic": "0x2c", "fields": ["rat"], "points": [[0, 9]]}, {)" +
         members + "}]}";
}

TEST(Scenario, AnErrorNamesItsPlace) {
  const std::string track = R"("sub": 1, "statistic": "lte-pcc", "fields": ["pci", "rsrp_rx0"], )";
  const std::pair<std::string, const char*> wrong[] = {
      {"", "no JSON: line 1, column 1"},
      {"{\"tracks\": [\n {\"sub\" 0}]}", "no JSON: line 2, column 9"},
      {R"({"tracks": 1e999})", "no JSON: number overflow"},
      {"[]", "the scenario: an object is expected"},
      {"{}", "the scenario: \"tracks\" is missing"},
      {R"({"tracks": []})", "tracks: an array of at least one element"},
      {R"({"tracks": [], "repat": 1})", "unknown member \"repat\""},
      {R"({"tracks": [], "repeat": 0})", "repeat: 0 is not within 0.001"},
      {R"({"tracks": [], "description": 7})", "description: a string is expected"},
      {with_track(""), "tracks[1]: \"sub\" is missing"},
      {with_track(R"("sub": 2)"), "tracks[1].sub: 2 is not within 0.0 to 1.0"},
      {with_track(R"("sub": 0.5)"), "tracks[1].sub: a whole number"},
      {with_track(R"("sub": 0, "statistic": "lte")"), "tracks[1].statistic: the modem has no statistic \"lte\""},
      {with_track(R"("sub": 0, "statistic": 4294967296)"), "tracks[1].statistic"},
      {with_track(R"("sub": 0, "statistic": 82, "fields": ["pci", "rsrp"])"),
       "tracks[1].fields[1]: lte-pcc has no field \"rsrp\""},
      {with_track(R"("sub": 0, "statistic": 44, "fields": ["rat"], "points": [[0, 9]])"),
       "tracks[1].fields[0]: this field has its numbers already"},
      {with_track(track + R"("interpolation": "cubic")"), "tracks[1].interpolation: \"linear\" or \"step\""},
      {with_track(track + R"("points": [[0, 1, 2], [1, 2]])"), "tracks[1].points[1]: the time and 2 numbers"},
      {with_track(track + R"("points": [[0, 1, 2], [0, 1, 2]])"), "tracks[1].points[1][0]: a time after"},
      {with_track(track + R"("points": [[0, 1, 2], [11, 1, 2]])"), "tracks[1].points[1][0]: the scenario begins anew"},
      {with_track(track + R"("points": [[-1, 1, 2]])"), "tracks[1].points[0][0]: -1 is not within"},
      {with_track(track + R"("points": [[0, 65536, 2]])"), "tracks[1].points[0][1]: 65536 is not within 0.0 to 65535"},
      {with_track(track + R"("points": [[0, "1", 2]])"), "tracks[1].points[0][1]: a number is expected"},
      {std::string(2 << 20, ' '), "larger than 1048576 bytes"},
  };
  for (const auto& [text, place] : wrong) {
    try {
      parse_scenario(text);
      ADD_FAILURE() << text << " was taken";
    } catch (const ScenarioError& error) {
      EXPECT_NE(std::string(error.what()).find(place), std::string::npos) << error.what() << "\n  and not: " << place;
    }
  }
}

}  // namespace

}  // namespace pelmar::sim::test
