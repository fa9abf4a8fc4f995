// What the client shows of the modem's statistics, while the modem plays values that are known.
#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "modem_test.h"

namespace pelmar::system_test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

// Sub 0 goes from LTE with two carriers to NR; sub 1 has LTE throughout, with one chain that does not measure.
constexpr const char* kScenario = R"({
  "tracks": [
    {"sub": 0, "statistic": "system-mode", "fields": ["rat"], "interpolation": "step", "points": [[0, 9], [10, 12]]},
    {"sub": 0, "statistic": "lte-pcc",
     "fields": ["earfcn", "pci", "rx_valid", "rsrp_rx0", "rsrp_rx3", "rsrq_rx1", "rssi_rx2", "snr_rx0"],
     "points": [[0, 1300, 101, 15, -850, -881, -112, -563, 180], [10, 1300, 101, 15, -1050, -1081, -152, -763, -20]]},
    {"sub": 0, "statistic": "lte-scc6", "fields": ["present", "rx_valid", "rsrp_rx1"], "interpolation": "step",
     "points": [[0, 1, 2, -977], [10, 0, 2, -977]]},
    {"sub": 0, "statistic": "nr-pcc", "fields": ["present", "rsrp_rx2", "rsrq"], "interpolation": "step",
     "points": [[0, 0, -700, -100], [10, 1, -701, -102]]},
    {"sub": 0, "statistic": "nr-tracking", "fields": ["present", "snr3"], "points": [[0, 1, 333]]},
    {"sub": 0, "statistic": "nr-rx-gain", "fields": ["present", "rssi0"], "points": [[0, 1, -444]]},
    {"sub": 0, "statistic": "nr-antennas", "fields": ["present", "ant_rx_2_old", "ant_rx_2_new", "ant_tx_1_new"],
     "points": [[0, 1, 1, 3, 2]]},
    {"sub": 0, "statistic": "lte-uplink", "fields": ["pusch_tx_power"], "points": [[0, -10]]},
    {"sub": 0, "statistic": "nr-uplink", "fields": ["present", "tx_power_pusch"], "points": [[0, 1, -3.7]]},
    {"sub": 1, "statistic": "system-mode", "fields": ["rat"], "points": [[0, 9]]},
    {"sub": 1, "statistic": "lte-uplink", "fields": ["pusch_tx_power"], "points": [[0, 23]]},
    {"sub": 1, "statistic": "lte-pcc", "fields": ["rx_valid", "rsrp_rx0", "rsrp_rx1"], "points": [[0, 1, -1201, -1202]]},
    {"sub": 1, "statistic": "gsm-levels", "fields": ["rx_prx", "rx_drx"], "points": [[0, -701, -702]]},
    {"sub": 1, "statistic": "antenna-switch", "fields": ["old_config", "new_config"], "points": [[0, 1, 2]]}
  ]
})";

class SignalTest : public ModemTest {
 protected:
  SignalTest() {
    tell("clock 0");
    std::ofstream(path("scenario.json")) << kScenario;
    tell("scenario " + path("scenario.json"));
  }

  // The documents that the client prints.
  static std::vector<json> client(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), MODEM_API_TEST);
    arguments.emplace_back("--json");
    const sim::test::Outcome outcome = sim::test::run_program(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    std::vector<json> documents;
    std::istringstream lines(outcome.output);
    for (std::string line; std::getline(lines, line);) documents.push_back(json::parse(line));
    return documents;
  }

  static json signal(uint32_t sub) {
    return client({"signal", "--sub", std::to_string(sub)}).at(0).at("subscriptions").at(0);
  }

  static json carrier(const json& subscription, const std::string& name) {
    for (const json& each : subscription.at("carriers")) {
      if (each.at("carrier") == name) return each;
    }
    return nullptr;
  }

  static int32_t tx_power(const std::vector<std::string>& options) {
    std::vector<std::string> arguments = {"tx-power"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return client(arguments).at(0).at("tx_power");
  }
};

TEST_F(SignalTest, ShowsTheValuesOfEverySubscriptionAndCarrier) {
  const json first = signal(0);
  EXPECT_EQ(first["mode"], 9);
  const json pcc = carrier(first, "lte_pcc");
  EXPECT_EQ(pcc["channel"], 1300);
  EXPECT_EQ(pcc["pci"], 101);
  EXPECT_EQ(pcc["rsrp"][0], -85.0);
  EXPECT_EQ(pcc["rsrp"][3], -88.1);
  EXPECT_EQ(pcc["rsrq"][1], -11.2);
  EXPECT_EQ(pcc["rssi"][2], -56.3);
  EXPECT_EQ(pcc["snr"][0], 18.0);
  EXPECT_EQ(carrier(first, "lte_scc6")["rsrp"], json::parse("[null, -97.7, null, null]"));
  EXPECT_EQ(carrier(first, "nr_pcc"), nullptr);
  EXPECT_EQ(first["rx_antennas"][2], json::parse(R"({"before": 1, "now": 3})"));
  EXPECT_EQ(first["tx_antennas"][1]["now"], 2);

  const json second = signal(1);
  EXPECT_EQ(second["tx_power"], 23);
  EXPECT_EQ(carrier(second, "lte_pcc")["rsrp"], json::parse("[-120.1, null, null, null]"));
  EXPECT_EQ(second["gain"]["gsm"], json::parse("[-70.1, -70.2, null, null]"));
  EXPECT_EQ(second["transmit_switching"]["before"], 1);
  EXPECT_EQ(second["transmit_switching"]["now"], 2);
}

TEST_F(SignalTest, FollowsTheValuesOverTime) {
  tell("clock 5000");
  EXPECT_EQ(carrier(signal(0), "lte_pcc")["rsrp"][0], -95.0);
  EXPECT_EQ(carrier(signal(0), "lte_pcc")["snr"][0], 8.0);
  tell("clock 10000");
  const json later = signal(0);
  EXPECT_EQ(later["mode"], 12);
  EXPECT_EQ(carrier(later, "lte_pcc")["rsrp"][0], -105.0);
  EXPECT_EQ(carrier(later, "lte_scc6"), nullptr);
  const json nr = carrier(later, "nr_pcc");
  EXPECT_EQ(nr["rsrp"][2], -70.1);
  EXPECT_EQ(nr["rsrq"][0], -10.2);
  EXPECT_EQ(nr["snr"][3], 33.3);
  EXPECT_EQ(later["gain"]["nr"][0], -44.4);
}

TEST_F(SignalTest, TransmitPowerFollowsModeSubscriptionAndDefaultDataSubscription) {
  EXPECT_EQ(tx_power({"--sub", "0"}), -10);
  EXPECT_EQ(tx_power({"--sub", "1"}), 23);
  EXPECT_EQ(tx_power({"--max"}), 23);
  EXPECT_EQ(tx_power({}), -10);
  client({"props", "set", "persist.radio.default_data_sub", "1"});
  EXPECT_EQ(tx_power({}), 23);
  tell("clock 10000");
  EXPECT_EQ(tx_power({"--sub", "0"}), -3);
  tell("statistic 0 system-mode rat=5");
  tell("statistic 1 system-mode rat=5");
  for (const std::vector<std::string>& options : {std::vector<std::string>{"--max"}, {"--sub", "0"}}) {
    std::vector<std::string> arguments = {MODEM_API_TEST, "tx-power"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const sim::test::Outcome none = sim::test::run_program(arguments);
    EXPECT_EQ(none.status, 1);
    EXPECT_THAT(none.output, HasSubstr("there is none"));
  }
}

TEST_F(SignalTest, SystemModeIsNamed) {
  tell("statistic 1 system-mode rat=5");
  const std::vector<json> modes = client({"sys-mode"});
  ASSERT_EQ(modes.size(), 2U);
  EXPECT_EQ(modes[0], json::parse(R"({"sub": 0, "mode": 9, "name": "LTE"})"));
  EXPECT_EQ(modes[1], json::parse(R"({"sub": 1, "mode": 5, "name": "mode 5"})"));
  tell("statistic 1 system-mode stack_max=0");
  EXPECT_EQ(client({"sys-mode"})[1]["mode"], nullptr);
}

TEST_F(SignalTest, RegisteredStatisticsAreReportedAndDecoded) {
  tell("report-period 20");
  tell("statistic 0 system-mode rat=9");  // however long it takes
  tell("clock run");
  const std::vector<json> reports = client({"stats", "register", "lte-pcc", "0x2c", "--count", "4"});
  std::vector<json> values;
  json entries;
  for (const json& report : reports) {
    if (report.value("name", "") == "report_a")
      values.insert(values.end(), report["records"].begin(), report["records"].end());
    if (report.value("name", "") == "report_b") entries = report["entries"];
  }
  EXPECT_EQ(entries, json::parse("[1, 1]"));
  ASSERT_GE(values.size(), 4U);
  for (const json& value : values) {
    const json& fields = value.at("fields");
    if (value["id"] == 0x2c) {
      EXPECT_EQ(fields["rat"], 9) << value;
    } else if (value["sub"] == 0) {
      EXPECT_EQ(fields["earfcn"], 1300) << value;
    } else {
      EXPECT_EQ(fields["rsrp_rx0"], -1201) << value;
    }
  }
  const json statistics = modem().operator_command("status").at("statistics");
  EXPECT_EQ(statistics["reporters"], 0) << "given back at the end";
}

TEST_F(SignalTest, ReportsOfOneSubscriptionAloneAreAskedForByTheOption) {
  tell("report-period 20");
  tell("clock run");
  size_t records = 0;
  for (const json& report : client({"stats", "register", "system-mode", "--option1", "1", "--count", "4"})) {
    for (const json& value : report.value("records", json::array())) {
      EXPECT_EQ(value["sub"], 1);
      ++records;
    }
  }
  EXPECT_GE(records, 1U);
}

}  // namespace
}  // namespace pelmar::system_test
