// What the sources of hydra share: the fetch of a statistics value, the cursor that reads it field by field, and the
// place of each field in its record.
//
// A value is a packed sequence of little-endian fields, 1 to 700 bytes, without padding or alignment. The process has
// one fetched value and one cursor: a thread holds the decoder lock from before the fetch until after the last field.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "modem_hydra.h"
#include "pelmar_log_site.h"
#include "pelmar_thread.h"
#include "statistic_tables.h"

namespace pelmar {

// The callbacks of a client that hydra opens itself. They only log.
void modem_hydra_callback_event_cb(uint32_t event, const uint8_t* payload, uint32_t length);
void modem_hydra_operational_status_cb(uint32_t notice, uint32_t client_type);

// The decoder lock; not recursive.
extern Lock g_decoder_lock;

// One field of a value: its name in messages, its offset in the record, and its width in bytes, both there and in the
// value.
struct MetricField {
  const char* name;
  uint16_t offset;
  uint8_t width;
};

// Fetches the value of a statistics identifier and sets the cursor to its start; opens hydra if it is closed. False on
// a failure, which is logged. REQUIRES: the decoder lock is held.
bool modem_hydra_data_get(uint32_t sub, uint32_t id);

// Copies the next field of the fetched value to the record. False at the end of the value, which is logged at
// `decoder`, the decoding function. REQUIRES: the decoder lock is held.
bool take_field(const log::Place& decoder, const MetricField& field, void* record);

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

// clang-format off

// Defines Metric<Structure>: the member for each field of the value, in the order of the fields (statistic_tables.h). A
// member of another width than its field does not compile.
#define PELMAR_METRIC(Structure, fields, ...)                              \
  template <>                                                              \
  struct Metric<Structure> {                                               \
    using Record = Structure;                                              \
    static constexpr auto kFields = placed(statistics::fields, {__VA_ARGS__}); \
  };

#define PELMAR_AT(member) {offsetof(Record, member), sizeof(Record::member)}

// The value has one chain after the other; the record has an array for each of the four measures.
#define PELMAR_CHAIN_AT(i) PELMAR_AT(rsrp[i]), PELMAR_AT(rsrq[i]), PELMAR_AT(rssi[i]), PELMAR_AT(snr[i])
PELMAR_METRIC(modem_hydra_lte_srv_meas_info, kLteCell,
    PELMAR_AT(version), PELMAR_AT(version_ssmr), PELMAR_AT(earfcn), PELMAR_AT(pci), PELMAR_AT(is_srv_cell),
    PELMAR_AT(rx_valid), PELMAR_CHAIN_AT(0), PELMAR_CHAIN_AT(1), PELMAR_CHAIN_AT(2), PELMAR_CHAIN_AT(3))

PELMAR_METRIC(modem_hydra_nr5g_srv_meas_info, kNrCell,
    PELMAR_AT(version), PELMAR_AT(rsrp[0]), PELMAR_AT(rsrp[1]), PELMAR_AT(rsrp[2]), PELMAR_AT(rsrp[3]),
    PELMAR_AT(rsrq))

PELMAR_METRIC(modem_hydra_nr5g_ll1_fw_rx_control_agc, kNrReceiveGain,
    PELMAR_AT(version), PELMAR_AT(rssi[0]), PELMAR_AT(rssi[1]), PELMAR_AT(rssi[2]), PELMAR_AT(rssi[3]))

PELMAR_METRIC(modem_hydra_nr5g_ll1_fw_serving_ftl, kNrTracking,
    PELMAR_AT(version), PELMAR_AT(snr[0]), PELMAR_AT(snr[1]), PELMAR_AT(snr[2]), PELMAR_AT(snr[3]))

PELMAR_METRIC(modem_hydra_nr5g_ml1_antenna_switch_diversity, kNrAntennas,
    PELMAR_AT(version), PELMAR_AT(ant_rx_0_old), PELMAR_AT(ant_rx_0_new), PELMAR_AT(ant_rx_1_old),
    PELMAR_AT(ant_rx_1_new), PELMAR_AT(ant_rx_2_old), PELMAR_AT(ant_rx_2_new), PELMAR_AT(ant_rx_3_old),
    PELMAR_AT(ant_rx_3_new), PELMAR_AT(ant_tx_0_old), PELMAR_AT(ant_tx_0_new), PELMAR_AT(ant_tx_1_old),
    PELMAR_AT(ant_tx_1_new))

PELMAR_METRIC(modem_hydra_wcdma_pn_search_edition2, kWcdmaSearch,
    PELMAR_AT(version), PELMAR_AT(rx_agc_0), PELMAR_AT(rx_agc_1))

PELMAR_METRIC(modem_hydra_gsm_l1_rx_diversity_metrics, kGsmLevels,
    PELMAR_AT(version), PELMAR_AT(rx_prx), PELMAR_AT(rx_drx))

PELMAR_METRIC(modem_hydra_mcs_trm_asdiv, kAntennaSwitch,
    PELMAR_AT(version), PELMAR_AT(ant_number), PELMAR_AT(ant_switch_path), PELMAR_AT(sig_path), PELMAR_AT(old_config),
    PELMAR_AT(new_config))

PELMAR_METRIC(modem_hydra_lte_pusch_power_info, kLteUplink,
    PELMAR_AT(version), PELMAR_AT(pusch_tx_power), PELMAR_AT(dl_path_loss), PELMAR_AT(max_power),
    PELMAR_AT(pusch_ex_tx_power))

PELMAR_METRIC(modem_hydra_nr5g_mac_ul_phy_ch_power_info, kNrUplink,
    PELMAR_AT(version_hook), PELMAR_AT(tx_power_pusch), PELMAR_AT(tx_power_pucch), PELMAR_AT(tx_power_srs),
    PELMAR_AT(tx_power_prach), PELMAR_AT(mtpl_pusch), PELMAR_AT(mtpl_pucch), PELMAR_AT(mtpl_srs),
    PELMAR_AT(mtpl_prach), PELMAR_AT(pathloss[0]), PELMAR_AT(pathloss[1]), PELMAR_AT(pathloss[2]),
    PELMAR_AT(pathloss[3]))

// The system mode: the number of protocol stacks, and the radio access technology of the first one.
struct SystemMode {
  uint8_t stack_max;
  uint32_t rat;
};

PELMAR_METRIC(SystemMode, kSystemMode,
    PELMAR_AT(stack_max), PELMAR_AT(rat))

#undef PELMAR_CHAIN_AT
#undef PELMAR_AT
#undef PELMAR_METRIC
// clang-format on

}  // namespace pelmar
