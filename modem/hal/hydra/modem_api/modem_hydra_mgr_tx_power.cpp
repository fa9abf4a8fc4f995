// The transmit power of a subscription, from the uplink values of its radio access technology.
#include "modem_hydra.h"
#include "pelmar_log_site.h"
#include "pelmar_property.h"

namespace pelmar {
namespace {

// Rounds towards zero. A value that is not a number, or that does not fit a 32-bit integer, is no power.
uint32_t to_power(float value) {
  constexpr float kBound = 2147483648.0F;
  const bool fits = value >= -kBound && value < kBound;
  return fits ? static_cast<uint32_t>(static_cast<int32_t>(value)) : MODEM_TX_POWER_NONE;
}

// Compatibility: two error texts end in "faile".
uint32_t power_on(const log::Place& here, uint32_t rat, uint32_t sub) {
  if (rat == MODEM_SYS_MODE_NR) {
    modem_hydra_nr5g_mac_ul_phy_ch_power_info info = {};
    if (modem_hydra_nr5g_mac_ul_phy_ch_power_info_get(sub, &info) != 0) return to_power(info.tx_power_pusch);
    PELMAR_LOG_ERROR_AT(here, "modem_hydra_nr5g_mac_ul_phy_ch_power_info_get faile");
  } else if (rat == MODEM_SYS_MODE_LTE) {
    modem_hydra_lte_pusch_power_info info = {};
    const uint8_t is_read = modem_hydra_lte_pusch_power_info_get(sub, &info);
    if (is_read != 0) return static_cast<uint32_t>(int32_t{info.pusch_tx_power});
    PELMAR_LOG_ERROR_AT(here, "modem_hydra_lte_pusch_power_info_get faile");
  } else {
    PELMAR_LOG_ERROR_AT(here, "rat(%d) is invalid", static_cast<int>(rat));
  }
  return MODEM_TX_POWER_NONE;
}

uint32_t higher_power(uint32_t power0, uint32_t power1) {
  if (power0 == MODEM_TX_POWER_NONE) return power1;
  if (power1 == MODEM_TX_POWER_NONE) return power0;
  return static_cast<int32_t>(power1) > static_cast<int32_t>(power0) ? power1 : power0;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

uint32_t modem_tx_power_get_by_sub(uint32_t sub) {
  // Compatibility: the entry line follows the reading of the mode.
  const uint32_t rat = modem_sys_mode_get(sub);
  PELMAR_LOG_DEBUG("function entry ------------->");
  PELMAR_LOG_DEBUG("sub = %d, rat = %d", static_cast<int>(sub), static_cast<int>(rat));
  const uint32_t power = power_on(PELMAR_HERE, rat, sub);
  PELMAR_LOG_DEBUG("function exit, tx_power = %d <-------------", static_cast<int>(power));
  return power;
}

uint32_t modem_tx_power_get_for_dds_sub() {
  PELMAR_LOG_DEBUG("function entry ------------->");
  const int32_t sub = pelmar_get_default_data_sub();
  const uint32_t power = modem_tx_power_get_by_sub(static_cast<uint32_t>(sub));
  PELMAR_LOG_DEBUG("function exit, dds_sub = %d, tx_power = %d <-------------", sub, static_cast<int>(power));
  return power;
}

uint32_t modem_tx_power_get_for_max_sub() {
  PELMAR_LOG_DEBUG("function entry ------------->");
  const uint32_t power0 = modem_tx_power_get_by_sub(0);
  const uint32_t power1 = modem_tx_power_get_by_sub(1);
  const uint32_t power = higher_power(power0, power1);
  PELMAR_LOG_DEBUG("function exit, tx_power0 = %d, tx_power1 = %d, tx_power = %d <-------------",
                   static_cast<int>(power0), static_cast<int>(power1), static_cast<int>(power));
  return power;
}
