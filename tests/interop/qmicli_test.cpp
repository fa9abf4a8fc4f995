// An independent QMI client, qmicli, and the library look at one simulated modem and must see the same.
//
// qmicli knows the modem by the fixed abstract name "qmi-proxy". The test takes a network namespace of its own, so that
// the name is free whatever runs on the machine.
#include <gmock/gmock.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <regex>
#include <string>
#include <vector>

#include "modem_test.h"

namespace pelmar::system_test {
namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;

constexpr const char* kQmicli = "/usr/bin/qmicli";
constexpr const char* kProxy = "@qmi-proxy";

// The proxy's name in a network namespace of the test's own; "" where there is none to be had.
std::string own_proxy() {
  return unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 ? kProxy : "";
}

class QmicliTest : public ModemTest {
 protected:
  QmicliTest() : ModemTest({"--clock-ms", "0"}, own_proxy()) {}

  void SetUp() override {
    if (access(kQmicli, X_OK) != 0) GTEST_SKIP() << "qmicli is not installed (package libqmi-utils)";
    if (modem().socket() != kProxy) GTEST_SKIP() << "no network namespace of its own to be had";
  }

  static std::string qmicli(const std::string& action) {
    const sim::test::Outcome outcome =
        sim::test::run_program({kQmicli, "--device-open-qmi", "-p", "-d", "/dev/null", action});
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
  const int32_t client = open(MODEM_API_CLIENT_NAS_0);
  std::array<uint16_t, 8> intra_pci{};
  std::array<uint16_t, 3> inter_earfcn{};
  std::array<uint16_t, 24> inter_pci{};
  uint8_t advance_valid = 0;
  uint8_t nr_valid = 0;
  uint32_t advance = 0;
  uint32_t nr_arfcn = 0;
  ASSERT_EQ(modem_api_get_cell_info(client, 0, intra_pci.data(), inter_earfcn.data(), inter_pci.data(), &advance_valid,
                                    &advance, &nr_valid, &nr_arfcn),
            MODEM_API_SUCCESS);

  // The cells of all frequencies in one row, as qmicli prints them: empty places left out.
  std::vector<uint32_t> cells;
  for (const uint16_t pci : intra_pci) {
    if (pci != 0) cells.push_back(pci);
  }
  EXPECT_GE(cells.size(), 2u) << "a serving cell and a neighbour";
  for (const uint16_t pci : inter_pci) {
    if (pci != 0) cells.push_back(pci);
  }
  EXPECT_THAT(numbers_after(seen, "Physical Cell ID"), ElementsAreArray(cells));

  std::vector<uint32_t> frequencies = numbers_after(seen, "EUTRA Absolute RF Channel Number");
  ASSERT_FALSE(frequencies.empty());
  frequencies.erase(frequencies.begin());  // the serving one
  frequencies.resize(inter_earfcn.size());
  EXPECT_THAT(frequencies, ElementsAreArray(inter_earfcn));
  EXPECT_EQ(advance_valid, 1);
  EXPECT_THAT(numbers_after(seen, "LTE Timing Advance"), ElementsAreArray({advance}));
  EXPECT_EQ(nr_valid, 1);
  EXPECT_THAT(numbers_after(seen, "5GNR ARFCN"), ElementsAreArray({nr_arfcn}));
}

TEST_F(QmicliTest, DrxIsTheSameForBoth) {
  const int32_t client = open(MODEM_API_CLIENT_NAS_0);
  const struct {
    uint32_t value;
    const char* text;
  } kCases[] = {{6, "cn6-t32"}, {7, "cn7-t64"}, {8, "cn8-t128"}, {9, "cn9-t256"}};
  for (const auto& test_case : kCases) {
    ctl("drx 0 " + std::to_string(test_case.value));
    uint8_t valid = 0;
    uint32_t drx = 0;
    EXPECT_EQ(modem_api_get_drx(client, &valid, &drx), MODEM_API_SUCCESS);
    EXPECT_EQ(valid, 1);
    EXPECT_EQ(drx, test_case.value);
    EXPECT_THAT(qmicli("--nas-get-drx"), HasSubstr(test_case.text));
  }
}

TEST_F(QmicliTest, ASarStateThatOneSetsTheOtherReads) {
  const int32_t client = open(MODEM_API_CLIENT_SAR);
  ASSERT_EQ(modem_api_set_sar_rf_state(client, 5), MODEM_API_SUCCESS);
  EXPECT_THAT(qmicli("--sar-rf-get-state"), HasSubstr("SAR RF state: 5"));
  qmicli("--sar-rf-set-state=3");
  EXPECT_THAT(qmicli("--sar-rf-get-state"), HasSubstr("SAR RF state: 3"));
}

}  // namespace
}  // namespace pelmar::system_test
