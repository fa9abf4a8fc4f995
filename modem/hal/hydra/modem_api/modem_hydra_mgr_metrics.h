// Which fields each statistics value has, in the order of the value, and where they go in its record.
//
// A row takes width and place from the record's member; only where the value's field is called otherwise does a row
// name it. The value's total width is asserted beside its rows.
#pragma once

#include <cstddef>

#include "modem_hydra.h"
#include "modem_hydra_mgr_fetch.h"

namespace pelmar {

template <size_t kCount>
constexpr size_t bytes_of(const MetricField (&fields)[kCount]) {
  size_t total = 0;
  for (const MetricField& field : fields) total += field.width;
  return total;
}

template <typename Record>
struct Metric;

// clang-format off
#define PELMAR_FIELD_AS(name, member) {name, offsetof(Record, member), sizeof(Record::member)}
#define PELMAR_FIELD(member) PELMAR_FIELD_AS(#member, member)

// The value has the chains one after the other, the record its four measures.
template <>
struct Metric<modem_hydra_lte_srv_meas_info> {
  using Record = modem_hydra_lte_srv_meas_info;
#define PELMAR_CHAIN_FIELDS(i)                                                  \
  PELMAR_FIELD_AS("rsrp_rx" #i, rsrp[i]), PELMAR_FIELD_AS("rsrq_rx" #i, rsrq[i]), \
  PELMAR_FIELD_AS("rssi_rx" #i, rssi[i]), PELMAR_FIELD_AS("snr_rx" #i, snr[i])
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version),
      PELMAR_FIELD(version_ssmr),
      PELMAR_FIELD(earfcn),
      PELMAR_FIELD(pci),
      PELMAR_FIELD(is_srv_cell),
      PELMAR_FIELD(rx_valid),
      PELMAR_CHAIN_FIELDS(0),
      PELMAR_CHAIN_FIELDS(1),
      PELMAR_CHAIN_FIELDS(2),
      PELMAR_CHAIN_FIELDS(3),
  };
#undef PELMAR_CHAIN_FIELDS
};
static_assert(bytes_of(Metric<modem_hydra_lte_srv_meas_info>::kFields) == 75);

template <>
struct Metric<modem_hydra_nr5g_srv_meas_info> {
  using Record = modem_hydra_nr5g_srv_meas_info;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version),
      PELMAR_FIELD_AS("rsrp_rx0", rsrp[0]),
      PELMAR_FIELD_AS("rsrp_rx1", rsrp[1]),
      PELMAR_FIELD_AS("rsrp_rx2", rsrp[2]),
      PELMAR_FIELD_AS("rsrp_rx3", rsrp[3]),
      PELMAR_FIELD(rsrq),
  };
};
static_assert(bytes_of(Metric<modem_hydra_nr5g_srv_meas_info>::kFields) == 24);

template <>
struct Metric<modem_hydra_nr5g_ll1_fw_rx_control_agc> {
  using Record = modem_hydra_nr5g_ll1_fw_rx_control_agc;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version),
      PELMAR_FIELD_AS("rssi0", rssi[0]),
      PELMAR_FIELD_AS("rssi1", rssi[1]),
      PELMAR_FIELD_AS("rssi2", rssi[2]),
      PELMAR_FIELD_AS("rssi3", rssi[3]),
  };
};
static_assert(bytes_of(Metric<modem_hydra_nr5g_ll1_fw_rx_control_agc>::kFields) == 20);

template <>
struct Metric<modem_hydra_nr5g_ll1_fw_serving_ftl> {
  using Record = modem_hydra_nr5g_ll1_fw_serving_ftl;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version),
      PELMAR_FIELD_AS("snr0", snr[0]),
      PELMAR_FIELD_AS("snr1", snr[1]),
      PELMAR_FIELD_AS("snr2", snr[2]),
      PELMAR_FIELD_AS("snr3", snr[3]),
  };
};
static_assert(bytes_of(Metric<modem_hydra_nr5g_ll1_fw_serving_ftl>::kFields) == 20);

template <>
struct Metric<modem_hydra_nr5g_ml1_antenna_switch_diversity> {
  using Record = modem_hydra_nr5g_ml1_antenna_switch_diversity;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version),
      PELMAR_FIELD(ant_rx_0_old),
      PELMAR_FIELD(ant_rx_0_new),
      PELMAR_FIELD(ant_rx_1_old),
      PELMAR_FIELD(ant_rx_1_new),
      PELMAR_FIELD(ant_rx_2_old),
      PELMAR_FIELD(ant_rx_2_new),
      PELMAR_FIELD(ant_rx_3_old),
      PELMAR_FIELD(ant_rx_3_new),
      PELMAR_FIELD(ant_tx_0_old),
      PELMAR_FIELD(ant_tx_0_new),
      PELMAR_FIELD(ant_tx_1_old),
      PELMAR_FIELD(ant_tx_1_new),
  };
};
static_assert(bytes_of(Metric<modem_hydra_nr5g_ml1_antenna_switch_diversity>::kFields) == 16);

template <>
struct Metric<modem_hydra_wcdma_pn_search_edition2> {
  using Record = modem_hydra_wcdma_pn_search_edition2;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version),
      PELMAR_FIELD(rx_agc_0),
      PELMAR_FIELD(rx_agc_1),
  };
};
static_assert(bytes_of(Metric<modem_hydra_wcdma_pn_search_edition2>::kFields) == 9);

template <>
struct Metric<modem_hydra_gsm_l1_rx_diversity_metrics> {
  using Record = modem_hydra_gsm_l1_rx_diversity_metrics;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version),
      PELMAR_FIELD(rx_prx),
      PELMAR_FIELD(rx_drx),
  };
};
static_assert(bytes_of(Metric<modem_hydra_gsm_l1_rx_diversity_metrics>::kFields) == 9);

template <>
struct Metric<modem_hydra_mcs_trm_asdiv> {
  using Record = modem_hydra_mcs_trm_asdiv;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version),
      PELMAR_FIELD(ant_number),
      PELMAR_FIELD(ant_switch_path),
      PELMAR_FIELD(sig_path),
      PELMAR_FIELD(old_config),
      PELMAR_FIELD(new_config),
  };
};
static_assert(bytes_of(Metric<modem_hydra_mcs_trm_asdiv>::kFields) == 8);

template <>
struct Metric<modem_hydra_lte_pusch_power_info> {
  using Record = modem_hydra_lte_pusch_power_info;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version),
      PELMAR_FIELD(pusch_tx_power),
      PELMAR_FIELD(dl_path_loss),
      PELMAR_FIELD(max_power),
      PELMAR_FIELD(pusch_ex_tx_power),
  };
};
static_assert(bytes_of(Metric<modem_hydra_lte_pusch_power_info>::kFields) == 8);

template <>
struct Metric<modem_hydra_nr5g_mac_ul_phy_ch_power_info> {
  using Record = modem_hydra_nr5g_mac_ul_phy_ch_power_info;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(version_hook),
      PELMAR_FIELD(tx_power_pusch),
      PELMAR_FIELD(tx_power_pucch),
      PELMAR_FIELD(tx_power_srs),
      PELMAR_FIELD(tx_power_prach),
      PELMAR_FIELD(mtpl_pusch),
      PELMAR_FIELD(mtpl_pucch),
      PELMAR_FIELD(mtpl_srs),
      PELMAR_FIELD(mtpl_prach),
      PELMAR_FIELD_AS("pathloss", pathloss[0]),
      PELMAR_FIELD_AS("pathloss", pathloss[1]),
      PELMAR_FIELD_AS("pathloss", pathloss[2]),
      PELMAR_FIELD_AS("pathloss", pathloss[3]),
  };
};
static_assert(bytes_of(Metric<modem_hydra_nr5g_mac_ul_phy_ch_power_info>::kFields) == 52);

// What the system mode is read into: the protocol stacks, and the radio access technology of the first one.
struct SystemMode {
  uint8_t stack_max;
  uint32_t rat;
};

template <>
struct Metric<SystemMode> {
  using Record = SystemMode;
  static constexpr MetricField kFields[] = {
      PELMAR_FIELD(stack_max),
      PELMAR_FIELD(rat),
  };
};
static_assert(bytes_of(Metric<SystemMode>::kFields) == 5);

#undef PELMAR_FIELD
#undef PELMAR_FIELD_AS
// clang-format on

}  // namespace pelmar
