// The statistics feature from the outside: values by the modem's clock, reports, and what the operator fixes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>

#include "io/local_socket.h"
#include "service_clients.h"

namespace pelmar::sim::test {

namespace {

template <typename Number>
Number number_at(const Bytes& bytes, size_t at) {
  Number number{};
  EXPECT_LE(at + sizeof number, bytes.size());
  if (at + sizeof number <= bytes.size()) std::memcpy(&number, bytes.data() + at, sizeof number);
  return number;
}

// A report's records: values by subscription and identifier.
using Values = std::map<std::pair<uint16_t, uint32_t>, Bytes>;

class StatisticsClient : public VsClient {
 public:
  using VsClient::VsClient;

  Bytes read(uint16_t sub, uint32_t id) {
    const auto request = std::make_unique<vs::GetStatsParameterRequest>();
    request->sub = sub;
    request->record_count = 1;
    request->records[0].id = id;
    const auto response = std::make_unique<vs::GetStatsParameterResponse>(
        call<vs::GetStatsParameterResponse>(vs::kGetStatsParameter, *request));
    const vs::DataRecord& record = response->records[0];
    EXPECT_EQ(record.sub, sub);
    EXPECT_EQ(record.sub_high, 0);
    EXPECT_EQ(record.id, id);
    return {record.data, record.data + record.data_len};
  }

  uint32_t enable_reports() {
    want_events(true, false);
    return call<vs::SetStatsReportStatusResponse>(vs::kSetStatsReportStatus, vs::SetStatsReportStatusRequest{1, 0, 0})
        .stats_client_id;
  }

  void add(uint32_t reporter, const std::vector<uint32_t>& ids, std::optional<uint16_t> sub, uint16_t error = 0) {
    const auto request = std::make_unique<vs::RegisterStatsRequest>();
    request->stats_client_id = reporter;
    for (const uint32_t id : ids) request->entries[request->entry_count++].stats_id = id;
    request->option1_valid = sub.has_value();
    request->option1 = sub.value_or(0);
    call<vs::PlainResponse>(vs::kRegisterStats, *request, error);
  }

  void remove(uint32_t reporter, uint32_t id, std::optional<uint16_t> sub) {
    const vs::DeregisterStatsRequest request{reporter, 1, {id}, sub.has_value(), sub.value_or(0), 0, 0};
    call<vs::PlainResponse>(vs::kDeregisterStats, request);
  }

  // The reports that come before the answer to a further request.
  std::vector<Received> reports() {
    connection().send_request(0xE4, id(), vs::kGetFeatureStatus, tlv(0x01, {2, 0, 0, 0}));
    std::vector<Received> found;
    for (;;) {
      auto received = connection().receive();
      if (!received || received->message == vs::kGetFeatureStatus) return found;
      found.push_back(std::move(*received));
    }
  }
};

Values values_of(const std::vector<Received>& reports) {
  Values values;
  for (const Received& report : reports) {
    if (report.message != vs::kReportAIndication) continue;
    const Bytes records = report.value(0x02);
    size_t at = 1;
    for (int i = 0; i < records[0]; ++i) {
      const auto length = number_at<uint16_t>(records, at + 8);
      const auto begin = records.begin() + static_cast<ptrdiff_t>(at + 10);
      values[{number_at<uint16_t>(records, at), number_at<uint32_t>(records, at + 4)}] = {begin, begin + length};
      at += 10 + length;
    }
  }
  return values;
}

class StatisticsTest : public testing::Test {
 protected:
  int64_t advance(int ms) { return modem_.operator_command("clock advance " + std::to_string(ms))["clock_ms"]; }

  ScratchDirectory directory_;
  SimProcess modem_{directory_, {"--clock-ms", "0"}};
  StatisticsClient client_{modem_};
};

// --- values ---

TEST_F(StatisticsTest, ValuesHaveTheirWidthsWhereTheModemHasThem) {
  advance(15'000);  // all carriers are there
  const std::pair<uint32_t, size_t> sizes[] = {{0x52, 75}, {0x67, 75}, {0x68, 75}, {0x69, 75}, {0x6a, 75},
                                               {0x6b, 75}, {0x6c, 75}, {0x87, 24}, {0x06, 24}, {0x07, 24},
                                               {0x5e, 20}, {0x70, 20}, {0x71, 16}, {0x6e, 9},  {0x6f, 9},
                                               {0x64, 8},  {0x62, 8},  {0x5a, 52}, {0x2c, 5},  {0x53, 0}};
  for (const auto& [id, size] : sizes) EXPECT_EQ(client_.read(0, id).size(), size) << id;
  EXPECT_EQ(client_.read(1, 0x6c).size(), 0u) << "the second subscription's network has three frequencies";
  EXPECT_EQ(client_.read(0, 0x2c), (Bytes{1, 12, 0, 0, 0}));
  EXPECT_LE(number_at<float>(client_.read(0, 0x5a), 4), 26);
}

TEST_F(StatisticsTest, ValuesAgreeWithTheCellLocationWhereverThePhoneIs) {
  for (uint16_t sub : {0, 1}) {
    NasClient nas(modem_, sub);
    for (const int ms : {0, 45'000, 100'000, 170'000}) {
      modem_.operator_command("clock " + std::to_string(ms));
      const auto location = nas.cells();
      const Bytes primary = client_.read(sub, 0x52);
      EXPECT_EQ(number_at<uint32_t>(primary, 2), location.intra_frequency.earfcn);
      EXPECT_EQ(number_at<uint16_t>(primary, 6), location.intra_frequency.serving_cell_id);
      int32_t strongest = INT32_MIN;
      for (size_t chain = 0; chain < 4; ++chain) {
        strongest = std::max(strongest, number_at<int32_t>(primary, 11 + 16 * chain));
      }
      EXPECT_EQ(strongest, location.intra_frequency.cells[0].rsrp);
      EXPECT_EQ(client_.read(sub, 0x87).empty(), !location.nr_arfcn_valid);
    }
  }
}

TEST_F(StatisticsTest, ALockMovesThePrimaryCarrier) {
  NasClient nas(modem_, 0);
  nas.lock({{331, 3050}});
  const Bytes primary = client_.read(0, 0x52);
  EXPECT_EQ(number_at<uint32_t>(primary, 2), 3050u);
  EXPECT_EQ(number_at<uint16_t>(primary, 6), 331);
  nas.disable_nr(1);
  EXPECT_EQ(client_.read(0, 0x2c), (Bytes{1, 9, 0, 0, 0}));
  nas.lock({{1, 1}});
  EXPECT_TRUE(client_.read(0, 0x52).empty());
  EXPECT_EQ(client_.read(0, 0x2c), (Bytes{1, 0, 0, 0, 0})) << "out of service";
}

TEST_F(StatisticsTest, ClearingForgetsThePastSwitchOfThatValueAlone) {
  const auto configs = [&](uint32_t id) {
    const Bytes value = client_.read(0, id);
    return std::pair(value.at(id == 0x64 ? 6 : 4), value.at(id == 0x64 ? 7 : 5));
  };
  modem_.operator_command("clock 50000");
  const auto [before, after] = configs(0x64);
  ASSERT_NE(before, after);
  client_.call<vs::PlainResponse>(vs::kClearStatsParameter, vs::ClearStatsParameterRequest{0, 0, 1, {0x64}});
  EXPECT_EQ(configs(0x64), (std::pair{after, after}));
  EXPECT_NE(configs(0x71).first, configs(0x71).second);
  modem_.operator_command("clock 64000");
  EXPECT_NE(configs(0x64).first, configs(0x64).second) << "a later switch counts again";
}

TEST_F(StatisticsTest, ASeedReproducesAModem) {
  const auto value_with = [](const std::string& seed) {
    ScratchDirectory directory;
    SimProcess modem(directory, {"--clock-ms", "77000", "--seed", seed});
    return StatisticsClient(modem).read(1, 0x52);
  };
  const Bytes value = value_with("42");
  EXPECT_EQ(value, value_with("42"));
  EXPECT_NE(value, value_with("43"));
}

// --- reports ---

TEST_F(StatisticsTest, WhatIsRegisteredIsReportedOncePerPeriod) {
  StatisticsClient other(modem_);
  const uint32_t reporter = client_.enable_reports();
  const uint32_t others = other.enable_reports();
  std::vector<uint32_t> ids = {0x52, 0x2c, 0x1234};
  client_.add(reporter, ids, 1);
  other.add(others, {0x64}, std::nullopt);
  EXPECT_TRUE(client_.reports().empty()) << "nothing is due";
  advance(999);
  EXPECT_TRUE(client_.reports().empty());
  advance(1);
  const auto reports = client_.reports();
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].client, client_.id());
  EXPECT_EQ(number_at<uint32_t>(reports[0].value(0x01), 0), reporter);
  EXPECT_EQ(number_at<uint32_t>(reports[0].value(0x11), 0), 1000u) << "the modem's clock";
  const Values values = values_of(reports);
  ASSERT_EQ(values.size(), 3u);
  EXPECT_EQ(values.at({1, 0x52}), client_.read(1, 0x52));
  EXPECT_EQ(values.at({1, 0x1234}), Bytes());
  EXPECT_EQ(reports[1].message, vs::kReportBIndication);
  EXPECT_EQ(reports[1].value(0x02), (Bytes{3, 1, 1, 0})) << "in the order of the identifiers";
  EXPECT_EQ(reports[1].value(0x03), (Bytes{1, 0})) << "the subscription";
  EXPECT_EQ(reports[1].value(0x04), (Bytes{1, 0})) << "the first report";
  EXPECT_EQ(values_of(other.reports()).size(), 2u) << "of both subscriptions";

  advance(10'000);
  EXPECT_EQ(client_.reports().size(), 2u) << "missed reports are not made up for";
  client_.remove(reporter, 0x52, std::nullopt);
  advance(1000);
  EXPECT_EQ(values_of(client_.reports()).size(), 2u);
  client_.want_events(false, false);
  advance(1000);
  EXPECT_TRUE(client_.reports().empty());
}

TEST_F(StatisticsTest, ManyValuesTakeSeveralEvents) {
  const uint32_t reporter = client_.enable_reports();
  std::vector<uint32_t> ids(100);
  for (uint32_t i = 0; i < ids.size(); ++i) ids[i] = i;
  client_.add(reporter, ids, std::nullopt);
  client_.add(reporter, {100}, 1, 42);
  client_.add(reporter, {7}, 2, 48);
  modem_.operator_command("report-period 10");
  advance(10);
  const auto reports = client_.reports();
  EXPECT_EQ(reports.size(), 22u);
  EXPECT_EQ(values_of(reports).size(), 200u);
}

TEST_F(StatisticsTest, ARegistrationEndsWithItsClientOrService) {
  const uint32_t reporter = client_.enable_reports();
  client_.add(reporter, {0x52}, 0);
  modem_.operator_command("service vs down");
  modem_.operator_command("service vs up");
  EXPECT_EQ(modem_.operator_command("status")["statistics"]["registrations"], 0);
  StatisticsClient next(modem_);
  next.want_events(true, false);
  next.add(reporter, {0x52}, 0, 41);
  advance(1000);
  EXPECT_TRUE(next.reports().empty());
}

// The modem notices it by the first of the report's events, in the middle of its work.
TEST_F(StatisticsTest, AClientMayDieBeforeItsReport) {
  std::vector<uint32_t> ids(100);
  for (uint32_t i = 0; i < ids.size(); ++i) ids[i] = i;
  client_.add(client_.enable_reports(), ids, std::nullopt);
  const UniqueFd operators = connect_local(directory_.path("storage/control"));
  advance(0);  // answered after the modem has accepted what connected before
  ASSERT_EQ(kill(modem_.process(), SIGSTOP), 0);
  int status = 0;
  ASSERT_EQ(waitpid(modem_.process(), &status, WUNTRACED), modem_.process());
  const std::string line = "clock advance 100000\n";
  ASSERT_EQ(write(operators.get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
  client_.connection().close();
  ASSERT_EQ(kill(modem_.process(), SIGCONT), 0);
  StatisticsClient next(modem_);
  EXPECT_EQ(next.enable_reports(), 0u) << "the first reporter's place is free again";
}

// --- the operator's values ---

TEST_F(StatisticsTest, TheOperatorFixesFieldsOrWholeValues) {
  const Bytes live = client_.read(0, 0x52);
  const auto fixed = modem_.operator_command("statistic 0 lte-pcc rsrp_rx1=-1005 pci=7");
  EXPECT_EQ(fixed["source"], "operator");
  EXPECT_EQ(fixed["fields"]["rsrp_rx1"], -1005);
  EXPECT_EQ(fixed["fields"]["pci"], 7);
  Bytes expected = live;
  const int32_t level = -1005;
  std::memcpy(expected.data() + 11 + 16, &level, sizeof level);
  expected[6] = 7;
  expected[7] = 0;
  EXPECT_EQ(client_.read(0, 0x52), expected) << "the other fields are the radio's";
  EXPECT_EQ(modem_.operator_command("statistic 0 0x52 0102ff")["fields"].size(), 2u);
  EXPECT_EQ(client_.read(0, 0x52), (Bytes{1, 2, 0xFF}));
  modem_.operator_command("statistic 0 0x52 clear");
  EXPECT_EQ(client_.read(0, 0x52), live);
  EXPECT_EQ(modem_.operator_command("statistic 0 82")["source"], "radio");
  EXPECT_EQ(modem_.operator_command("statistic 1 lte-scc6")["source"], "none");
  modem_.operator_command("statistic 1 lte-scc6 pci=9");
  EXPECT_EQ(client_.read(1, 0x6c).size(), 75u) << "a fixed value is there";
}

TEST_F(StatisticsTest, AWrongFixSaysWhatIsRightAndChangesNothing) {
  const std::pair<const char*, const char*> wrong[] = {
      {"statistic 2 0x52", "from 0 to 1"},
      {"statistic 0 lte", "lte-pcc, lte-scc1"},
      {"statistic 0 lte-pcc pci=1 rsrp=2", "rsrp_rx0"},
      {"statistic 0 lte-pcc pci=1 earfcn=-1", "from 0.0 to 4294967295.0"},
      {"statistic 0 lte-pcc pci=nan", "no number"},
      {"statistic 0 lte-pcc pci=", "no number"},
      {"statistic 0 lte-pcc 123", "pairs of hexadecimal digits"},
      {"report-period 5", "at least 10"},
  };
  for (const auto& [line, hint] : wrong) {
    EXPECT_NE(modem_.refused_command(line).find(hint), std::string::npos) << modem_.refused_command(line);
  }
  EXPECT_EQ(modem_.operator_command("statistic 0 lte-pcc")["source"], "radio");
}

// --- scenarios ---

TEST_F(StatisticsTest, AScenarioPlaysFromItsLoadingOn) {
  const std::string file = directory_.path("drive in.json");
  std::ofstream(file) << R"({"description": "away and back", "repeat": 10, "tracks": [
      {"sub": 1, "statistic": "lte-scc6", "fields": ["rsrp_rx0", "rsrp_rx1"],
       "points": [[2, -800, -900], [4, -1000, -900]]}]})";
  advance(5000);
  EXPECT_EQ(modem_.operator_command("scenario " + file)["tracks"], 1);
  const auto level = [&] { return number_at<int32_t>(client_.read(1, 0x6c), 11); };
  EXPECT_EQ(level(), -800);
  advance(3000);
  EXPECT_EQ(level(), -900);
  advance(10'000);
  EXPECT_EQ(level(), -900) << "repeated";
  EXPECT_EQ(modem_.operator_command("statistic 1 lte-scc6")["source"], "scenario");
  modem_.operator_command("statistic 1 lte-scc6 rsrp_rx0=-5");
  EXPECT_EQ(level(), -5) << "the operator's own number is above it";
  modem_.operator_command("statistic 1 lte-scc6 clear");

  std::ofstream(directory_.path("bad.json")) << R"({"tracks": [{"sub": 0}]})";
  EXPECT_NE(modem_.refused_command("scenario " + directory_.path("bad.json")).find("tracks[0]: \"statistic\""),
            std::string::npos);
  EXPECT_NE(modem_.refused_command("scenario " + directory_.path("none")).find("no such file"), std::string::npos);
  EXPECT_EQ(level(), -900) << "the earlier one plays on";
  EXPECT_EQ(modem_.operator_command("scenario")["description"], "away and back");
  EXPECT_EQ(modem_.operator_command("scenario stop")["playing"], false);
  EXPECT_TRUE(client_.read(1, 0x6c).empty());
}

TEST(StatisticsProcess, ServePlaysAScenarioFromTheStartOrNotAtAll) {
  ScratchDirectory directory;
  SimProcess modem(directory, {"--clock-ms", "5000", "--scenario", EXAMPLE_SCENARIO});
  EXPECT_EQ(modem.operator_command("scenario")["playing"], true);
  const Outcome outcome = run_program({MODEM_SIM, "serve", "--socket", directory.path("other"), "--storage",
                                       directory.path("other-storage"), "--scenario", directory.path("none")});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.output.find("none: no such file"), std::string::npos) << outcome.output;
}

}  // namespace

}  // namespace pelmar::sim::test
