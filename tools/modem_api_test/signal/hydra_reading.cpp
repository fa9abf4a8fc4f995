#include "signal/reading.h"

#include <algorithm>
#include <iterator>

#include "modem_hydra.h"

namespace pelmar::cli {

namespace {

using LteRecord = modem_hydra_lte_srv_meas_info;
using NrRecord = modem_hydra_nr5g_srv_meas_info;

// By carrier index.
constexpr uint8_t (*kReadLte[])(uint32_t, LteRecord*) = {
    modem_hydra_lte_srv_meas_info_get_for_pcc,  modem_hydra_lte_srv_meas_info_get_for_scc1,
    modem_hydra_lte_srv_meas_info_get_for_scc2, modem_hydra_lte_srv_meas_info_get_for_scc3,
    modem_hydra_lte_srv_meas_info_get_for_scc4, modem_hydra_lte_srv_meas_info_get_for_scc5,
    modem_hydra_lte_srv_meas_info_get_for_scc6,
};
constexpr uint8_t (*kReadNr[])(uint32_t, NrRecord*) = {
    modem_hydra_nr5g_srv_meas_info_get_for_pcc,
    modem_hydra_nr5g_srv_meas_info_get_for_scc1,
    modem_hydra_nr5g_srv_meas_info_get_for_scc2,
};

// The modem's levels are 32-bit words that count tenths of dB or dBm.
double decibels(int32_t word) {
  return word / 10.0;
}

template <typename Record>
std::optional<Record> read_record(uint8_t (*get)(uint32_t, Record*), uint32_t sub) {
  Record record;
  if (get(sub, &record) == 0) return std::nullopt;
  return record;
}

// A value that the modem has cleared counts from zero again: it is that of no carrier.
bool is_cleared(const LteRecord& record) {
  return record.rx_valid == 0;
}
bool is_cleared(const NrRecord& record) {
  return std::all_of(std::begin(record.rsrp), std::end(record.rsrp), [](int32_t word) { return word == 0; });
}

Levels levels_of(const int32_t (&words)[MODEM_HYDRA_RX_CHAINS], uint32_t valid_chains = ~0U) {
  Levels levels = kNoLevels;
  for (size_t i = 0; i < kChains; ++i) {
    if ((valid_chains >> i & 1U) != 0) levels[i] = decibels(words[i]);
  }
  return levels;
}

void read_lte(SubscriptionReading& reading) {
  for (uint32_t i = 0; i < std::size(kReadLte); ++i) {
    const auto record = read_record(kReadLte[i], reading.sub);
    if (!record || is_cleared(*record)) continue;
    reading.carriers.push_back({{Technology::kLte, i},
                                record->earfcn,
                                record->pci,
                                levels_of(record->rsrp, record->rx_valid),
                                levels_of(record->rsrq, record->rx_valid),
                                levels_of(record->rssi, record->rx_valid),
                                levels_of(record->snr, record->rx_valid)});
  }
}

// The gain and the signal-to-noise ratio of NR are those of the primary carrier.
void read_nr(SubscriptionReading& reading) {
  for (uint32_t i = 0; i < std::size(kReadNr); ++i) {
    const auto record = read_record(kReadNr[i], reading.sub);
    if (!record || is_cleared(*record)) continue;
    Carrier carrier{{Technology::kNr, i}, {}, {}, levels_of(record->rsrp)};
    carrier.rsrq[0] = decibels(record->rsrq);
    if (i == 0) {
      if (const auto gain = read_record(modem_hydra_nr5g_ll1_fw_rx_control_agc_get, reading.sub)) {
        carrier.rssi = levels_of(gain->rssi);
      }
      if (const auto ftl = read_record(modem_hydra_nr5g_ll1_fw_serving_ftl_get, reading.sub)) {
        carrier.snr = levels_of(ftl->snr);
      }
    }
    reading.carriers.push_back(carrier);
  }
}

void read_antennas(SubscriptionReading& reading) {
  if (const auto nr = read_record(modem_hydra_nr5g_ml1_antenna_switch_diversity_get, reading.sub)) {
    reading.rx_antennas = {{nr->ant_rx_0_old, nr->ant_rx_0_new},
                           {nr->ant_rx_1_old, nr->ant_rx_1_new},
                           {nr->ant_rx_2_old, nr->ant_rx_2_new},
                           {nr->ant_rx_3_old, nr->ant_rx_3_new}};
    reading.tx_antennas = {{nr->ant_tx_0_old, nr->ant_tx_0_new}, {nr->ant_tx_1_old, nr->ant_tx_1_new}};
  }
  if (const auto transmit = read_record(modem_hydra_mcs_trm_asdiv_get, reading.sub)) {
    reading.transmit_switching = TransmitSwitching{transmit->ant_number,
                                                   transmit->ant_switch_path,
                                                   transmit->sig_path,
                                                   {transmit->old_config, transmit->new_config}};
  }
}

void read_older_gain(SubscriptionReading& reading) {
  if (const auto wcdma = read_record(modem_hydra_wcdma_pn_search_edition2_get, reading.sub)) {
    reading.wcdma_gain = {decibels(wcdma->rx_agc_0), decibels(wcdma->rx_agc_1), kNoLevel, kNoLevel};
  }
  if (const auto gsm = read_record(modem_hydra_gsm_l1_rx_diversity_metrics_get, reading.sub)) {
    reading.gsm_gain = {decibels(gsm->rx_prx), decibels(gsm->rx_drx), kNoLevel, kNoLevel};
  }
}

SubscriptionReading read_subscription(uint32_t sub) {
  SubscriptionReading reading;
  reading.sub = sub;
  if (const uint32_t mode = modem_sys_mode_get(sub); mode != MODEM_SYS_MODE_UNKNOWN) reading.mode = mode;
  if (const uint32_t power = modem_tx_power_get_by_sub(sub); power != MODEM_TX_POWER_NONE) {
    reading.tx_power = static_cast<int32_t>(power);
  }
  read_lte(reading);
  read_nr(reading);
  read_antennas(reading);
  read_older_gain(reading);
  return reading;
}

}  // namespace

Reading read_signal(std::span<const uint32_t> subs) {
  Reading reading{WallClock::now(), {}};
  for (const uint32_t sub : subs) reading.subs.push_back(read_subscription(sub));
  return reading;
}

}  // namespace pelmar::cli
