// Where the fields of each statistics value go in its record.
//
// The members stand in the order of the value (statistic_tables.h), whose field has the member's width.
#pragma once

#include <array>
#include <cstddef>
#include <cstdlib>

#include "modem_hydra.h"
#include "modem_hydra_mgr_fetch.h"
#include "statistic_tables.h"

namespace pelmar {

struct Member {
  uint16_t offset;
  uint8_t width;
};

template <size_t kCount>
consteval std::array<MetricField, kCount> placed(const statistics::Field (&fields)[kCount],
                                                 const Member (&members)[kCount]) {
  std::array<MetricField, kCount> placed = {};
  for (size_t i = 0; i < kCount; ++i) {
    if (members[i].width != width_of(fields[i].type)) std::abort();  // does not compile
    placed[i] = {fields[i].name, members[i].offset, members[i].width};
  }
  return placed;
}

template <typename Record>
struct Metric;

#define PELMAR_AT(member) \
  { offsetof(Record, member), sizeof(Record::member) }

// The value has the chains one after the other, the record its four measures.
template <>
struct Metric<modem_hydra_lte_srv_meas_info> {
  using Record = modem_hydra_lte_srv_meas_info;
#define PELMAR_CHAIN_AT(i) PELMAR_AT(rsrp[i]), PELMAR_AT(rsrq[i]), PELMAR_AT(rssi[i]), PELMAR_AT(snr[i])
  static constexpr auto kFields =
      placed(statistics::kLteCell,
             {PELMAR_AT(version), PELMAR_AT(version_ssmr), PELMAR_AT(earfcn), PELMAR_AT(pci), PELMAR_AT(is_srv_cell),
              PELMAR_AT(rx_valid), PELMAR_CHAIN_AT(0), PELMAR_CHAIN_AT(1), PELMAR_CHAIN_AT(2), PELMAR_CHAIN_AT(3)});
#undef PELMAR_CHAIN_AT
};

template <>
struct Metric<modem_hydra_nr5g_srv_meas_info> {
  using Record = modem_hydra_nr5g_srv_meas_info;
  static constexpr auto kFields =
      placed(statistics::kNrCell, {PELMAR_AT(version), PELMAR_AT(rsrp[0]), PELMAR_AT(rsrp[1]), PELMAR_AT(rsrp[2]),
                                   PELMAR_AT(rsrp[3]), PELMAR_AT(rsrq)});
};

template <>
struct Metric<modem_hydra_nr5g_ll1_fw_rx_control_agc> {
  using Record = modem_hydra_nr5g_ll1_fw_rx_control_agc;
  static constexpr auto kFields =
      placed(statistics::kNrReceiveGain,
             {PELMAR_AT(version), PELMAR_AT(rssi[0]), PELMAR_AT(rssi[1]), PELMAR_AT(rssi[2]), PELMAR_AT(rssi[3])});
};

template <>
struct Metric<modem_hydra_nr5g_ll1_fw_serving_ftl> {
  using Record = modem_hydra_nr5g_ll1_fw_serving_ftl;
  static constexpr auto kFields =
      placed(statistics::kNrTracking,
             {PELMAR_AT(version), PELMAR_AT(snr[0]), PELMAR_AT(snr[1]), PELMAR_AT(snr[2]), PELMAR_AT(snr[3])});
};

template <>
struct Metric<modem_hydra_nr5g_ml1_antenna_switch_diversity> {
  using Record = modem_hydra_nr5g_ml1_antenna_switch_diversity;
  static constexpr auto kFields =
      placed(statistics::kNrAntennas,
             {PELMAR_AT(version), PELMAR_AT(ant_rx_0_old), PELMAR_AT(ant_rx_0_new), PELMAR_AT(ant_rx_1_old),
              PELMAR_AT(ant_rx_1_new), PELMAR_AT(ant_rx_2_old), PELMAR_AT(ant_rx_2_new), PELMAR_AT(ant_rx_3_old),
              PELMAR_AT(ant_rx_3_new), PELMAR_AT(ant_tx_0_old), PELMAR_AT(ant_tx_0_new), PELMAR_AT(ant_tx_1_old),
              PELMAR_AT(ant_tx_1_new)});
};

template <>
struct Metric<modem_hydra_wcdma_pn_search_edition2> {
  using Record = modem_hydra_wcdma_pn_search_edition2;
  static constexpr auto kFields =
      placed(statistics::kWcdmaSearch, {PELMAR_AT(version), PELMAR_AT(rx_agc_0), PELMAR_AT(rx_agc_1)});
};

template <>
struct Metric<modem_hydra_gsm_l1_rx_diversity_metrics> {
  using Record = modem_hydra_gsm_l1_rx_diversity_metrics;
  static constexpr auto kFields =
      placed(statistics::kGsmLevels, {PELMAR_AT(version), PELMAR_AT(rx_prx), PELMAR_AT(rx_drx)});
};

template <>
struct Metric<modem_hydra_mcs_trm_asdiv> {
  using Record = modem_hydra_mcs_trm_asdiv;
  static constexpr auto kFields =
      placed(statistics::kAntennaSwitch, {PELMAR_AT(version), PELMAR_AT(ant_number), PELMAR_AT(ant_switch_path),
                                          PELMAR_AT(sig_path), PELMAR_AT(old_config), PELMAR_AT(new_config)});
};

template <>
struct Metric<modem_hydra_lte_pusch_power_info> {
  using Record = modem_hydra_lte_pusch_power_info;
  static constexpr auto kFields =
      placed(statistics::kLteUplink, {PELMAR_AT(version), PELMAR_AT(pusch_tx_power), PELMAR_AT(dl_path_loss),
                                      PELMAR_AT(max_power), PELMAR_AT(pusch_ex_tx_power)});
};

template <>
struct Metric<modem_hydra_nr5g_mac_ul_phy_ch_power_info> {
  using Record = modem_hydra_nr5g_mac_ul_phy_ch_power_info;
  static constexpr auto kFields = placed(
      statistics::kNrUplink, {PELMAR_AT(version_hook), PELMAR_AT(tx_power_pusch), PELMAR_AT(tx_power_pucch),
                              PELMAR_AT(tx_power_srs), PELMAR_AT(tx_power_prach), PELMAR_AT(mtpl_pusch),
                              PELMAR_AT(mtpl_pucch), PELMAR_AT(mtpl_srs), PELMAR_AT(mtpl_prach), PELMAR_AT(pathloss[0]),
                              PELMAR_AT(pathloss[1]), PELMAR_AT(pathloss[2]), PELMAR_AT(pathloss[3])});
};

// What the system mode is read into: the protocol stacks, and the radio access technology of the first one.
struct SystemMode {
  uint8_t stack_max;
  uint32_t rat;
};

template <>
struct Metric<SystemMode> {
  using Record = SystemMode;
  static constexpr auto kFields = placed(statistics::kSystemMode, {PELMAR_AT(stack_max), PELMAR_AT(rat)});
};

#undef PELMAR_AT

}  // namespace pelmar
