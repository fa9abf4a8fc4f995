// The library and qmicli, an independent QMI client, use one simulated modem and must get the same values.
//
// qmicli connects to a proxy at the fixed abstract name "qmi-proxy". The test creates its own network namespace, so
// that the name is free even if the machine runs a proxy. The simulated modem listens at that name itself, or a proxy
// opens its device.
#include <gmock/gmock.h>

#include <regex>

#include "modem_test.h"

namespace pelmar::system_test {
namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;

constexpr const char* kQmicli = "/usr/bin/qmicli";
constexpr const char* kProxy = "@qmi-proxy";

// Creates a network namespace and returns the proxy's name in it; "" if that fails.
std::string own_proxy() {
  if (sim::test::transport() != "socket") return "";
  return unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 ? kProxy : "";
}

class QmicliTest : public ModemTest {
 protected:
  QmicliTest() : ModemTest({"--clock-ms", "0"}, own_proxy()) {}

  void SetUp() override {
    ModemTest::SetUp();
    if (IsSkipped()) return;
    if (access(kQmicli, X_OK) != 0) GTEST_SKIP() << "qmicli is not installed (package libqmi-utils)";
    if (sim::test::transport() == "socket" && modem().socket() != kProxy)
      GTEST_SKIP() << "cannot create a network namespace";
  }

  std::string qmicli(const std::string& action) {
    const std::string transport = sim::test::transport();
    const std::string device = transport == "proxy" ? modem().device() : "/dev/null";
    const sim::test::Outcome outcome =
        transport == "qrtr" ? sim::test::run_program({kQmicli, "-d", "qrtr://1", action})
                            : sim::test::run_program({kQmicli, "--device-open-qmi", "-p", "-d", device, action});
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    return outcome.output;
  }

  // All numbers that follow a label, in the order of the text.
  static std::vector<uint32_t> numbers_after(const std::string& text, const std::string& label) {
    std::vector<uint32_t> numbers;
    const std::regex pattern(label + ": '(\\d+)'");
    for (std::sregex_iterator match(text.begin(), text.end(), pattern), end; match != end; ++match) {
      numbers.push_back(static_cast<uint32_t>(std::stoul((*match)[1])));
    }
    return numbers;
  }
};

TEST_F(QmicliTest, CellLocationIsTheSameForBoth) {
  const std::string seen = qmicli("--nas-get-cell-location-info");
  std::vector<uint16_t> cells(8 + 24), frequencies(3);
  uint8_t advance_valid = 0, nr_valid = 0;
  uint32_t advance = 0, nr_arfcn = 0;
  ASSERT_EQ(modem_api_get_cell_info(open(MODEM_API_CLIENT_NAS_0), 0, &cells[0], &frequencies[0], &cells[8],
                                    &advance_valid, &advance, &nr_valid, &nr_arfcn),
            MODEM_API_SUCCESS);
  EXPECT_NE(cells[1], 0) << "there is a neighbour cell";
  std::erase(cells, 0);  // unused entries, which qmicli omits
  EXPECT_THAT(numbers_after(seen, "Physical Cell ID"), ElementsAreArray(cells));
  std::vector<uint32_t> seen_frequencies = numbers_after(seen, "EUTRA Absolute RF Channel Number");
  seen_frequencies.resize(4);  // that of the serving cell, then those that the library returns
  EXPECT_THAT(std::vector(seen_frequencies.begin() + 1, seen_frequencies.end()), ElementsAreArray(frequencies));
  EXPECT_EQ(advance_valid, 1);
  EXPECT_THAT(numbers_after(seen, "LTE Timing Advance"), ElementsAreArray({advance}));
  EXPECT_EQ(nr_valid, 1);
  EXPECT_THAT(numbers_after(seen, "5GNR ARFCN"), ElementsAreArray({nr_arfcn}));
}

TEST_F(QmicliTest, DrxIsTheSameForBoth) {
  const int32_t client = open(MODEM_API_CLIENT_NAS_0);
  for (const auto& [value, text] : {std::pair{6U, "cn6-t32"}, {7U, "cn7-t64"}, {8U, "cn8-t128"}, {9U, "cn9-t256"}}) {
    ctl("drx 0 " + std::to_string(value));
    uint8_t valid = 0;
    uint32_t drx = 0;
    EXPECT_EQ(modem_api_get_drx(client, &valid, &drx), MODEM_API_SUCCESS);
    EXPECT_EQ(valid, 1);
    EXPECT_EQ(drx, value);
    EXPECT_THAT(qmicli("--nas-get-drx"), HasSubstr(text));
  }
}

TEST_F(QmicliTest, EachReadsTheSarStateThatTheOtherSets) {
  const int32_t client = open(MODEM_API_CLIENT_SAR);
  ASSERT_EQ(modem_api_set_sar_rf_state(client, 5), MODEM_API_SUCCESS);
  EXPECT_THAT(qmicli("--sar-rf-get-state"), HasSubstr("SAR RF state: 5"));
  qmicli("--sar-rf-set-state=3");
  EXPECT_THAT(qmicli("--sar-rf-get-state"), HasSubstr("SAR RF state: 3"));
}

}  // namespace
}  // namespace pelmar::system_test
