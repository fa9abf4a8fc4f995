// Transmit power by subscription, of the default data subscription, and the higher one.
#include <limits>
#include <optional>

#include "hydra_test.h"

namespace {

using namespace scripted;

constexpr uint32_t kModeId = 0x2c;
constexpr uint32_t kLteId = 0x62;
constexpr uint32_t kNrId = 0x5a;
constexpr int32_t kNone = 65535;

using Power = std::optional<int16_t>;

class TxPower : public HydraTest {
 protected:
  TxPower() { open_hydra(); }

  void set_lte(uint32_t sub, Power power) {
    values[{sub, kModeId}] = bytes("01 09000000");
    values[{sub, kLteId}] = Bytes(power ? 8 : 0);
    if (power) std::memcpy(&values[{sub, kLteId}][1], &*power, sizeof(*power));
  }

  static int32_t by_sub(uint32_t sub) { return static_cast<int32_t>(modem_tx_power_get_by_sub(sub)); }
};

TEST_F(TxPower, NrIsCutTowardsZeroAndBounded) {
  using Float = std::numeric_limits<float>;
  constexpr int32_t kLowest = std::numeric_limits<int32_t>::min();
  const std::pair<float, int32_t> cases[] = {
      {-3.7F, -3},
      {12.9F, 12},
      {-0.5F, 0},
      {-2147483648.0F, kLowest},
      {-2147483904.0F, kNone},
      {2147483520.0F, 2147483520},
      {2147483648.0F, kNone},
      {Float::infinity(), kNone},
      {Float::quiet_NaN(), kNone},
  };
  values[{1, kModeId}] = bytes("01 0C000000");
  values[{1, kNrId}] = Bytes(52);
  for (const auto& [power, expected] : cases) {
    std::memcpy(&values[{1, kNrId}][4], &power, sizeof(power));
    EXPECT_EQ(by_sub(1), expected) << power;
  }
}

TEST_F(TxPower, TellsWhyThereIsNone) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"01 0C000000", "12", "modem_hydra_nr5g_mac_ul_phy_ch_power_info_get faile"},
      {"01 09000000", "9", "modem_hydra_lte_pusch_power_info_get faile"},
      {"01 05000000", "5", "rat(5) is invalid"},
      {"", "-1", "rat(-1) is invalid"},
  };
  for (const auto& [mode, rat, error] : cases) {
    values[{0, kModeId}] = bytes(mode);
    forget();
    EXPECT_EQ(by_sub(0), kNone);
    EXPECT_EQ(lines_of("modem_tx_power_get_by_sub"),
              (Lines{"D sub = 0, rat = " + rat, "E " + error, "D function exit, tx_power = 65535 <-------------"}));
  }
}

TEST_F(TxPower, OfTheDefaultDataSubscription) {
  set_lte(0, 5);
  set_lte(1, 7);
  for (const char* const sub : {"0", "1", "-1"}) {
    properties["persist.radio.default_data_sub"] = sub;
    modem_tx_power_get_for_dds_sub();
  }
  EXPECT_EQ(lines_of("modem_tx_power_get_for_dds_sub"),
            (Lines{"D function exit, dds_sub = 0, tx_power = 5 <-------------",
                   "D function exit, dds_sub = 1, tx_power = 7 <-------------",
                   "D function exit, dds_sub = -1, tx_power = 65535 <-------------"}));
}

TEST_F(TxPower, TheHigherOneWins) {
  const std::tuple<Power, Power, int32_t> cases[] = {
      {{}, -5, -5}, {-5, {}, -5}, {{}, {}, kNone}, {10, 10, 10}, {-20, -5, -5}, {3, -5, 3}, {-5, 3, 3},
  };
  for (const auto& [power0, power1, expected] : cases) {
    set_lte(0, power0);
    set_lte(1, power1);
    EXPECT_EQ(static_cast<int32_t>(modem_tx_power_get_for_max_sub()), expected);
  }
  EXPECT_EQ(lines_of("modem_tx_power_get_for_max_sub").back(),
            "D function exit, tx_power0 = -5, tx_power1 = 3, tx_power = 3 <-------------");
}

}  // namespace
