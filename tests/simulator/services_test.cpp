// Events, reports, scenarios, and the simulated radio.
#include <fstream>

#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

enum : uint16_t { kSetEventReport = 0x0001, kGetFeature, kSetReportStatus = 0x0200, kRegister };

class VsClient : public QmuxClient {
 public:
  explicit VsClient(const std::string& socket) : QmuxClient(socket, kVs) {}

  void want_events(bool ab, bool c) { exchange(kSetEventReport, tlv(0x10, {ab}) + tlv(0x11, {c})); }
  uint16_t add(const Bytes& reporter, uint32_t id) {
    return exchange(kRegister, tlv(0x01, reporter) + tlv(0x02, Bytes{1} + bytes_of(id) + Bytes(19))).error();
  }
  // Sends a request and returns the messages of the indications before its response.
  std::vector<uint16_t> indications() {
    send(request(kGetFeature, tlv(0x01, {2, 0, 0, 0})));
    std::vector<uint16_t> found;
    for (Received each = receive(); each.kind == Kind::kIndication; each = receive()) found.push_back(each.message);
    return found;
  }
};

// The clock stands still unless a test advances it.
class Services : public SimulatorTest {
 protected:
  Services() : SimulatorTest({"--clock-ms", "0"}) {}

  VsClient client_{socket_};
};

TEST_F(Services, EventsAreSentToClientsThatRegisteredForThem) {
  VsClient c(socket_);
  client_.want_events(true, false);
  c.want_events(false, true);
  const std::pair<const char*, int> events[] = {
      {"event 2 258 1 0", 2},
      {"event 3 7 record 1:82:0102", 1},
      {"event 4 7 0a0b 1 2", 1},
      {"event 5 3", 1},
  };
  for (const auto& [event, sent] : events) EXPECT_EQ(modem_.value(event, "/sent"), sent) << event;
  c.want_events(false, false);
  EXPECT_EQ(modem_.value("event 5 3", "/sent"), 0);
  EXPECT_EQ(client_.indications(), (std::vector<uint16_t>{0x0004, 0x0203, 0x0204}));
}

TEST_F(Services, RegisteredStatisticsAreReportedOncePerPeriodUntilTheClientEnds) {
  VsClient other(socket_);
  for (VsClient* client : {&client_, &other}) client->want_events(true, false);
  const Bytes reporter = client_.exchange(kSetReportStatus, tlv(0x01, {1})).value(0x10);
  EXPECT_EQ(other.add(reporter, 0x52), 41) << "the reporter of another client";
  EXPECT_EQ(client_.add(reporter, 0x52), 0);
  for (const auto& [ms, reports] : {std::pair(999, 0), {1, 4}, {10'000, 4}, {999, 0}, {1, 4}}) {
    modem_.command("clock advance " + std::to_string(ms));
    EXPECT_EQ(client_.indications().size(), reports) << "two events for each subscription; missed periods are skipped";
  }
  EXPECT_EQ(other.indications().size(), 0u);
  client_.close();
  EXPECT_TRUE(wait_for_status("/statistics/registrations", 0));
}

TEST_F(Services, AScenarioStartsWhenLoadedAndAWrongOneIsRefusedWithThePlace) {
  modem_.command("clock 5000");
  modem_.command("scenario " EXAMPLE_SCENARIO);
  for (const auto& [ms, level] : {std::pair(0, -850), {12'000, -1015}, {27'000, -850}}) {
    modem_.command("clock advance " + std::to_string(ms));
    EXPECT_EQ(modem_.value("statistic 0 lte-pcc", "/fields/rsrp_rx0"), level);
  }

  const auto with_track = [](const std::string& members) { return R"({"repeat": 10, "tracks": [{)" + members + "}]}"; };
  const std::string track = R"("sub": 1, "statistic": "lte-pcc", "fields": ["pci", "rsrp_rx0"], )";
  const std::pair<std::string, const char*> wrong[] = {
      {"{\"tracks\": [\n {\"sub\" 0}]}", "no JSON: line 2, column 9"},
      {"[]", "the scenario: an object is expected"},
      {R"({"tracks": [], "repat": 1})", "unknown member \"repat\""},
      {with_track(R"("sub": 2)"), "tracks[0].sub: 2 is not within 0.0 to 1.0"},
      {with_track(R"("sub": 0, "statistic": 82, "fields": ["rsrp"])"), "lte-pcc has no field \"rsrp\""},
      {with_track(track + R"("interpolation": "cubic")"), "tracks[0].interpolation: \"linear\" or \"step\""},
      {with_track(track + R"("points": [[0, 1, 2], [1, 2]])"), "tracks[0].points[1]: the time and 2 numbers"},
      {with_track(track + R"("points": [[0, 1, 2], [0, 1, 2]])"), "tracks[0].points[1][0]: a time after"},
      {with_track(track + R"("points": [[0, 65536, 2]])"), "tracks[0].points[0][1]: 65536 is not within 0.0 to 65535"},
      {with_track(R"("sub": 0, "fields": ["attenuation"], "points": [[0, 256]])"), "points[0][1]: 256 is not within"},
      {with_track(R"("commands": [[1, "clear"], [2, "clear all"]])"), "tracks[0].commands[1][1]: 'all' is one word"},
      {with_track(R"("commands": [[1, "service sar sideways"]])"), "[0][1]: 'sideways' is neither up nor down"},
      {with_track(R"("commands": [[1, "clock advance 1000"]])"), "[0][1]: a scenario does not move the clock"},
      {with_track(R"("commands": [[11, "clear"]])"), "tracks[0].commands[0][0]: 11 is not within 0.0 to 10.0"},
      {std::string(33 << 20, ' '), "larger than 33554432 bytes"},
  };
  for (const auto& [text, place] : wrong) {
    std::ofstream(path("bad.json")) << text;
    const std::string error = modem_.refused_command("scenario " + path("bad.json"));
    EXPECT_NE(error.find(place), std::string::npos) << error << "\n  does not contain: " << place;
  }
  EXPECT_EQ(modem_.value("statistic 0 lte-pcc", "/source"), "scenario") << "the earlier scenario continues";
  modem_.command("scenario stop");
  EXPECT_EQ(modem_.value("statistic 0 lte-pcc", "/source"), "radio");
}

TEST_F(Services, AScenarioRunsCommandsAndAttenuatesTheRadioOfOneSubscription) {
  std::ofstream(path("drive.json")) << R"({"repeat": 20, "tracks": [
      {"sub": 1, "fields": ["attenuation"], "points": [[0, 0], [10, 30]]},
      {"commands": [[4, "event 5 7 to each"], [2, "service sar down"], [3, "start"], [6, "service sar up"]]}]})";
  const auto levels = [&] {
    return std::pair(modem_.value("statistic 0 lte-pcc", "/fields/rsrp_rx0"),
                     modem_.value("statistic 1 lte-pcc", "/fields/rsrp_rx0").get<int>());
  };
  modem_.command("clock 5000");
  const auto [first, second] = levels();
  modem_.command("clock 0");
  modem_.command("scenario " + path("drive.json"));
  const auto expect_sar = [&](bool is_up, const std::string& clock) {
    modem_.command("clock " + clock);
    EXPECT_EQ(status("/services/1/up"), is_up) << clock;
  };
  expect_sar(true, "1999");
  expect_sar(false, "2000");
  expect_sar(false, "5000");
  EXPECT_EQ(modem_.line(), "modem_sim: tracks[1].commands[2]: no crash has left the modem down");
  EXPECT_EQ(levels(), std::pair(first, second - 150)) << "half of the way";
  expect_sar(true, "6000");
  EXPECT_EQ(client_.indications(), std::vector<uint16_t>{0x0601});
  expect_sar(false, "62500");  // only the due command of the fourth round runs
  EXPECT_EQ(client_.indications(), std::vector<uint16_t>{});
  modem_.command("service sar up");
  expect_sar(true, "1000");  // the clock goes back
  expect_sar(false, "2000");
}

TEST_F(Services, ASubscriptionHasItsOwnSettingsUntilTheServiceRestarts) {
  QmuxClient first(socket_, kNas);
  QmuxClient second(socket_, kNas);
  for (const uint8_t sub : {0, 1}) {
    EXPECT_EQ((sub == 0 ? first : second).exchange(0x0045, tlv(0x01, {sub})).error(), 0);
  }
  EXPECT_EQ(first.exchange(0x0045, tlv(0x01, {2})).error(), 48);
  const nlohmann::json fresh = status("/radio");
  const auto has_nr = [&] { return !first.exchange(0x0043).value(0x2E).empty(); };
  EXPECT_TRUE(has_nr());
  EXPECT_EQ(first.exchange(0x0033, tlv(0x33, bytes_of(2u))).error(), 0);
  EXPECT_FALSE(has_nr());
  first.exchange(0x00D8, tlv(0x01, Bytes{1} + bytes_of(uint16_t{331}) + bytes_of(3050u)));  // lock to a cell
  EXPECT_EQ(status("/radio/0/serving_cell"), "3050:331");
  first.exchange(0x00D8, tlv(0x01, Bytes{1} + bytes_of(uint16_t{1}) + bytes_of(1u)));
  EXPECT_EQ(first.exchange(0x0043).value(0x13), Bytes()) << "no such cell: out of service";
  EXPECT_EQ(status("/radio/1"), fresh[1]);
  EXPECT_NE(first.exchange(0x0089).value(0x10), second.exchange(0x0089).value(0x10)) << "the DRX";
  for (const char* command : {"service nas down", "service nas up"}) modem_.command(command);
  EXPECT_EQ(status("/radio"), fresh);
}

}  // namespace

}  // namespace pelmar::sim::test
