// Events, statistics and their reports, scenarios, and the radio that the phone sees.
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <set>

#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

enum : uint16_t { kSetEventReport = 0x0001, kGetFeature, kReportA = 0x0203, kReportB = 0x0204, kReportC = 0x0601 };
enum : uint16_t { kSetReportStatus = 0x0200, kRegister, kDeregister, kGetStatistics = 0x0207, kClearStatistics };
enum : uint32_t { kSystemMode = 0x2c, kLtePrimary = 0x52, kAntennaSwitch = 0x64 };

template <typename Number>
Number number_at(const Bytes& bytes, size_t at) {
  Number number{};
  if (at + sizeof(number) <= bytes.size()) std::memcpy(&number, bytes.data() + at, sizeof(number));
  return number;
}

class VsClient : public QmuxClient {
 public:
  explicit VsClient(const std::string& socket) : QmuxClient(socket, kVs) {}

  void want_events(bool ab, bool c) { ask(kSetEventReport, tlv(0x10, {ab}) + tlv(0x11, {c})); }
  uint32_t enable_reports() {
    want_events(true, false);
    return number_at<uint32_t>(ask(kSetReportStatus, tlv(0x01, {1})).value(0x10), 0);
  }
  // Identifiers from the first on. The option names a subscription; without it both are meant.
  uint16_t add(uint32_t reporter, uint32_t first, uint8_t count, const Bytes& option = {}) {
    Bytes entries = {count};
    for (uint32_t id = first; id < first + count; ++id) entries = std::move(entries) + bytes_of(id) + Bytes(19);
    return ask(kRegister, tlv(0x01, bytes_of(reporter)) + tlv(0x02, entries) + option).error();
  }
  // The indications that come before the response to a further request.
  std::vector<Received> indications() {
    send(request(kGetFeature, tlv(0x01, {2, 0, 0, 0})));
    std::vector<Received> found;
    for (Received each = receive(); each.kind == Kind::kIndication; each = receive()) found.push_back(each);
    return found;
  }
};

class NasClient : public QmuxClient {
 public:
  NasClient(const std::string& socket, uint8_t sub) : QmuxClient(socket, kNas) { EXPECT_EQ(bind(sub), 0); }

  uint16_t bind(uint8_t sub) { return ask(0x0045, tlv(0x01, {sub})).error(); }
  Bytes drx() { return ask(0x0089).value(0x10); }
  uint16_t disable_nr(uint32_t mode) { return ask(0x0033, tlv(0x33, bytes_of(mode))).error(); }
  bool has_nr() { return !ask(0x0043).value(0x2E).empty(); }
  // The serving frequency: its channel, the serving cell, and that cell's level. Zero out of service.
  std::vector<int> serving() {
    const Bytes value = ask(0x0043).value(0x13);
    return {number_at<uint16_t>(value, 10), number_at<uint16_t>(value, 12), number_at<int16_t>(value, 23)};
  }
  void lock(const std::vector<std::pair<uint16_t, uint32_t>>& cells) {
    Bytes entries = {static_cast<uint8_t>(cells.size())};
    for (const auto& [cell, channel] : cells) entries = std::move(entries) + bytes_of(cell) + bytes_of(channel);
    ask(0x00D8, tlv(0x01, entries));
  }
};

// The clock is held, so that the phone stays where it is.
class Services : public SimulatorTest {
 protected:
  Services() : SimulatorTest({"--clock-ms", "0"}) {}

  // A value; empty where the modem has none.
  Bytes read(uint16_t sub, uint32_t id) {
    const Bytes record = bytes_of(uint32_t{sub}) + bytes_of(id);
    const Bytes request = tlv(0x01, u16(sub)) + tlv(0x02, u16(0)) + tlv(0x03, Bytes{1} + record + u16(0));
    const Bytes value = client_.ask(kGetStatistics, request).value(0x10);
    EXPECT_EQ(Bytes(value.begin() + 1, value.begin() + 9), record);
    return Bytes(value.begin() + 11, value.end());
  }
  void clear(uint32_t id) {
    const Bytes request = tlv(0x01, u16(0)) + tlv(0x02, u16(0)) + tlv(0x03, Bytes{1} + bytes_of(id));
    EXPECT_EQ(client_.ask(kClearStatistics, request).error(), 0);
  }
  nlohmann::json registrations() const { return status("/statistics/registrations"); }

  VsClient client_{socket_};
};

TEST_F(Services, EventsGoToThoseThatRegisteredForThem) {
  VsClient c(socket_);
  client_.want_events(true, false);
  c.want_events(false, true);
  const std::pair<std::string, int> events[] = {
      {"event 2 258 1 0", 2},
      {"event 3 7 record 1:82:0102", 1},
      {"event 4 7 0a0b 1 2", 1},
      {"event 5 3", 1},
      {"event 5 4 to " + std::to_string(client_.id()), 1},
      {"event 5 4 to each", 2},
  };
  for (const auto& [event, sent] : events) EXPECT_EQ(modem_.value(event, "/sent"), sent) << event;
  c.want_events(false, false);
  EXPECT_EQ(modem_.value("event 5 3", "/sent"), 0);
  std::vector<uint16_t> received;
  for (const Received& each : client_.indications()) {
    EXPECT_TRUE(each.client == client_.id() && each.transaction == 0);
    received.push_back(each.message);
  }
  EXPECT_EQ(received, (std::vector<uint16_t>{0x0004, kReportA, kReportB, kReportC, kReportC}));
}

TEST_F(Services, AStreamIsCompleteAndInOrderAndLetsRequestsThrough) {
  client_.want_events(true, false);
  modem_.command("stream 500");
  for (uint32_t i = 0; i < 500; ++i) {
    const Received received = client_.receive();
    ASSERT_EQ(received.tlvs.size(), 10672u);
    EXPECT_EQ(received.value(0x01), bytes_of(i));
  }
  modem_.command("stream 4000000 every 1000");
  client_.receive();
  EXPECT_EQ(client_.ask(kGetFeature, tlv(0x01, bytes_of(300))).error(), 42);
}

// --- statistics ---

TEST_F(Services, ClearingForgetsThePastSwitchOfThatValueAlone) {
  const auto has_switched = [&](uint32_t id, size_t at) {
    const Bytes value = read(0, id);
    return value.at(at) != value.at(at + 1);
  };
  modem_.command("clock 50000");
  ASSERT_TRUE(has_switched(kAntennaSwitch, 6));
  clear(kAntennaSwitch);
  EXPECT_FALSE(has_switched(kAntennaSwitch, 6));
  EXPECT_TRUE(has_switched(0x71, 4));
  modem_.command("clock 64000");
  EXPECT_TRUE(has_switched(kAntennaSwitch, 6)) << "a later switch counts";
}

TEST_F(Services, ReportersAreGrantedAndEndWithTheirClientOrService) {
  VsClient other(socket_);
  const Bytes disable = tlv(0x01, {0}) + tlv(0x10, bytes_of(4));
  const Bytes deregister = tlv(0x01, bytes_of(4)) + tlv(0x02, Bytes{1} + bytes_of(0x52));
  for (uint32_t id = 0; id < 10; ++id) EXPECT_EQ(client_.enable_reports(), id);
  EXPECT_EQ(other.ask(kSetReportStatus, tlv(0x01, {1})).error(), 5);
  EXPECT_EQ(other.ask(kSetReportStatus, disable).error(), 41);
  EXPECT_EQ(client_.ask(kSetReportStatus, disable).error(), 0);
  EXPECT_EQ(other.enable_reports(), 4u);
  EXPECT_EQ(client_.add(4, 0x52, 1), 41);
  EXPECT_EQ(other.add(4, 0x52, 2), 0);
  EXPECT_EQ(registrations(), 4) << "for both subscriptions";
  for (const int error : {0, 26}) EXPECT_EQ(other.ask(kDeregister, deregister).error(), error);
  client_.close();
  EXPECT_TRUE(comes_to("/statistics/reporters", 1));
  for (const char* command : {"service vs down", "service vs up"}) modem_.command(command);
  EXPECT_EQ(registrations(), 0);
}

TEST_F(Services, WhatIsRegisteredIsReportedOncePerPeriod) {
  const auto reports_after = [&](int ms) {
    modem_.command("clock advance " + std::to_string(ms));
    return client_.indications();
  };
  const uint32_t reporter = client_.enable_reports();
  for (const uint32_t id : {0x52, 0x2c, 0x1234}) EXPECT_EQ(client_.add(reporter, id, 1, tlv(0x10, u16(1))), 0);
  EXPECT_TRUE(reports_after(999).empty());
  const auto reports = reports_after(1);
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].value(0x11), bytes_of(1000)) << "the modem's clock";
  EXPECT_EQ(reports[0].value(0x02).at(0), 3);
  EXPECT_EQ(reports[1].value(0x02), (Bytes{3, 1, 1, 0})) << "in the order of the identifiers";
  EXPECT_EQ(reports[1].value(0x03) + reports[1].value(0x04), u16(1) + u16(1)) << "the subscription and a count";
  EXPECT_EQ(reports_after(10'000).size(), 2u) << "missed reports are not made up for";
  EXPECT_TRUE(reports_after(999).empty());
  EXPECT_EQ(reports_after(1).size(), 2u);

  EXPECT_EQ(client_.add(reporter, 7, 1, tlv(0x10, u16(2))), 48);
  EXPECT_EQ(client_.add(reporter, 0x10000, 100, tlv(0x10, u16(1))), 42) << "more than 100";
  EXPECT_EQ(client_.add(reporter, 0x10000, 100, tlv(0x10, u16(0))), 0);
  modem_.command("report-period 10");
  EXPECT_EQ(reports_after(10).size(), 13u) << "ten values an event";
  client_.want_events(false, false);
  EXPECT_TRUE(reports_after(10).empty());
}

// The modem notices it by the first of the report's events, in the middle of its work.
TEST_F(Services, AClientMayDieBeforeItsReport) {
  client_.add(client_.enable_reports(), 0, 100);
  QmuxClient control(path("storage/control"));
  modem_.command("clock");  // now the modem has accepted what connected before
  ASSERT_EQ(kill(modem_.process(), SIGSTOP), 0);
  int status = 0;
  ASSERT_EQ(waitpid(modem_.process(), &status, WUNTRACED), modem_.process());
  const std::string line = "clock advance 100000\n";
  control.send(Bytes(line.begin(), line.end()));
  client_.close();
  ASSERT_EQ(kill(modem_.process(), SIGCONT), 0);
  EXPECT_EQ(VsClient(socket_).enable_reports(), 0u) << "the first reporter's place is free";
}

// --- scenarios ---

TEST_F(Services, AScenarioPlaysFromItsLoadingOn) {
  const std::string file = path("drive in.json");
  std::ofstream(file) << R"({"description": "away and back", "repeat": 10, "tracks": [
      {"sub": 1, "statistic": "lte-scc6", "fields": ["rsrp_rx0", "rsrp_rx1"],
       "points": [[2, -800, -900], [4, -1000, -900]]},
      {"sub": 0, "statistic": 44, "fields": ["present", "rat"], "interpolation": "step",
       "points": [[0, 1, 5], [4, 0, 7]]}]})";
  const auto level = [&] { return number_at<int32_t>(read(1, 0x6c), 11); };
  modem_.command("clock 5000");
  EXPECT_EQ(modem_.value("scenario " + file, "/tracks"), 2);
  EXPECT_EQ(level(), -800);
  modem_.command("clock advance 3000");
  EXPECT_EQ(level(), -900);
  EXPECT_EQ(read(0, kSystemMode), (Bytes{1, 5, 0, 0, 0}));
  modem_.command("clock advance 1000");
  EXPECT_EQ(read(0, kSystemMode), Bytes());
  modem_.command("clock advance 9000");
  EXPECT_EQ(level(), -900) << "repeated";
  EXPECT_EQ(modem_.value("statistic 1 lte-scc6", "/source"), "scenario");
  modem_.command("statistic 1 lte-scc6 rsrp_rx0=-5");
  EXPECT_EQ(level(), -5) << "the user's own number is above it";
  modem_.command("statistic 1 lte-scc6 clear");

  const auto with_track = [](const std::string& members) {
    return R"({"repeat": 10, "tracks": [{"sub": 0, "statistic": "0x2c", "fields": ["rat"], "points": [[0, 9]]}, {)" +
           members + "}]}";
  };
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
    std::ofstream(path("bad.json")) << text;
    const std::string error = modem_.refused_command("scenario " + path("bad.json"));
    EXPECT_NE(error.find(place), std::string::npos) << error << "\n  and not: " << place;
  }
  EXPECT_EQ(level(), -900) << "the earlier one plays on";
  EXPECT_EQ(modem_.value("scenario", "/description"), "away and back");
  modem_.command("scenario stop");
  EXPECT_EQ(modem_.value("statistic 1 lte-scc6", "/source"), "none");
}

TEST(Scenarios, TheExampleIsPlayedFromTheStart) {
  const ScratchDirectory directory;
  const SimProcess modem(directory, {"--clock-ms", "0", "--scenario", EXAMPLE_SCENARIO});
  const std::pair<int, int> levels[] = {
      {0, -850}, {12'000, -1015}, {39'000, -850}, {52'000, -1015}};  // the last one in the second round
  for (const auto& [ms, level] : levels) {
    modem.command("clock " + std::to_string(ms));
    EXPECT_EQ(modem.value("statistic 0 lte-pcc", "/fields/rsrp_rx0"), level) << ms;
  }
  EXPECT_EQ(modem.value("statistic 1 lte-pcc", "/source"), "radio");
}

// --- the radio ---

TEST_F(Services, TheNumbersOfEveryMomentFitTogether) {
  struct Chain {
    int32_t rsrp, rsrq, rssi, snr;
  };
  const auto chains = [](const Bytes& cell) { return number_at<std::array<Chain, 4>>(cell, 11); };
  std::set<std::vector<int>> cells;
  size_t most_carriers = 0;
  for (const uint8_t sub : {0, 1}) {
    NasClient nas(socket_, sub);
    Bytes last;
    for (int ms = 0; ms < 240'000; ms += 250) {
      SCOPED_TRACE(ms);
      modem_.command("clock " + std::to_string(ms));
      std::set<uint32_t> frequencies;
      for (const uint32_t carrier : {0x52, 0x67, 0x68, 0x69, 0x6a, 0x6b, 0x6c}) {
        const Bytes cell = read(sub, carrier);
        if (cell.empty()) continue;
        EXPECT_TRUE(frequencies.insert(number_at<uint32_t>(cell, 2)).second) << "one carrier a frequency";
        for (size_t i = 0; i < 4; ++i) {
          const auto [rsrp, rsrq, rssi, snr] = chains(cell)[i];
          if ((cell[9] >> i & 1) == 0) continue;
          EXPECT_NEAR(rsrq, 200 + rsrp - rssi, 2);
          EXPECT_TRUE(rsrp > -1300 && rsrp < -600 && snr > -150 && snr < 310) << rsrp << ", " << snr;
        }
      }
      most_carriers = std::max(most_carriers, frequencies.size());
      Bytes now = read(sub, kLtePrimary);
      const auto primary = chains(now);
      const std::vector<int> cell = {number_at<uint16_t>(now, 2), number_at<uint16_t>(now, 6),
                                     std::ranges::max(primary, {}, &Chain::rsrp).rsrp};
      EXPECT_EQ(nas.serving(), cell);
      EXPECT_NEAR(read(sub, 0x62).at(3), 18 - primary[0].rsrp / 10.0, 1) << "the transmitter's antenna";
      const Bytes nr = read(sub, 0x87);
      EXPECT_EQ(nr.empty(), !nas.has_nr());
      EXPECT_TRUE(nr.empty() || number_at<int32_t>(nr, 20) < -30) << "a ratio in tenths";
      cells.insert({cell[0], cell[1]});
      now.push_back(read(sub, kAntennaSwitch).at(7));  // the hand on the phone may come and go
      const bool is_same = !last.empty() && std::equal(now.begin(), now.begin() + 9, last.begin());
      for (size_t i = 0; is_same && now.back() == last.back() && i < 4; ++i) {
        EXPECT_NEAR(primary[i].rsrp, chains(last)[i].rsrp, 25) << "nothing jumps";
      }
      last = std::move(now);
    }
  }
  EXPECT_GE(cells.size(), 6u);
  EXPECT_EQ(most_carriers, 7u) << "six secondary carriers somewhere";
}

TEST(Radio, ASeedReproducesAModem) {
  const auto values_with = [](const std::string& seed) {
    const ScratchDirectory directory;
    const SimProcess modem(directory, {"--clock-ms", "77000", "--seed", seed});
    return std::pair(modem.value("statistic 0 lte-pcc", "/hex"), modem.value("statistic 1 lte-pcc", "/hex"));
  };
  const auto values = values_with("42");
  EXPECT_EQ(values, values_with("42"));
  const auto others = values_with("43");
  EXPECT_TRUE(values.first != others.first && values.second != others.second);
}

TEST_F(Services, ASubscriptionHasANetworkAndOrdersOfItsOwnUntilTheServiceRestarts) {
  NasClient first(socket_, 0);
  NasClient second(socket_, 1);
  QmuxClient sar(socket_, kSar);
  EXPECT_EQ(first.bind(2), 48);
  EXPECT_EQ(first.disable_nr(3), 48);
  const nlohmann::json fresh = status("/radio");
  const std::vector<int> before = first.serving();
  EXPECT_NE(before, second.serving());
  for (const uint32_t mode : {1u, 2u, 0u}) {
    EXPECT_EQ(first.disable_nr(mode), 0);
    EXPECT_EQ(first.has_nr(), mode == 0);
  }
  first.ask(0x0098, tlv(0x01, {5}));
  EXPECT_EQ(status("/radio/0/avoid_trm"), 5);
  for (const int error : {0, 48}) EXPECT_EQ(sar.ask(0x0001, tlv(0x01, bytes_of(error == 0 ? 20 : 21))).error(), error);
  first.lock({{1, 1}, {331, 3050}});
  EXPECT_EQ(status("/radio/0/serving_cell"), "3050:331");
  EXPECT_EQ(number_at<uint16_t>(read(0, kLtePrimary), 6), 331);
  EXPECT_EQ(number_at<uint32_t>(read(0, 0x67), 2), static_cast<uint32_t>(before[0])) << "a further carrier now";
  first.lock({{1, 1}});
  EXPECT_EQ(first.ask(0x0043).value(0x13), Bytes()) << "no such cell: out of service";
  EXPECT_TRUE(read(0, kLtePrimary).empty());
  EXPECT_EQ(read(0, kSystemMode), (Bytes{1, 0, 0, 0, 0}));
  EXPECT_EQ(status("/radio/1"), fresh[1]);

  EXPECT_NE(first.drx(), second.drx());
  uint8_t id = second.id();
  do {  // until it has the second one's id
    second.release(kNas, id);
    id = second.allocate(kNas);
  } while (id != second.id() && id != 0);
  EXPECT_EQ(first.drx(), second.drx()) << "the next client of an id is bound to no subscription";
  for (const char* command : {"service nas down", "service nas up", "service sar down"}) modem_.command(command);
  EXPECT_EQ(status("/radio"), fresh);
  EXPECT_EQ(status("/sar_rf_state"), 0);
}

}  // namespace

}  // namespace pelmar::sim::test
