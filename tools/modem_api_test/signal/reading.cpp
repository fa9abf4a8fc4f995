#include "signal/reading.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <nlohmann/json.hpp>

#include "modem_hydra.h"

namespace pelmar::cli {

namespace {

// --- from hydra ---

using LteRecord = modem_hydra_lte_srv_meas_info;
using NrRecord = modem_hydra_nr5g_srv_meas_info;

// Indexed by carrier.
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

// A record that the modem has cleared has no levels, so it belongs to no carrier.
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

// --- as text and JSON ---

constexpr uint32_t kNoService = 0;    // a mode of the modem's
constexpr uint32_t kMostIndices = 7;  // primary and six secondary carriers

std::string position(uint32_t index) {
  return index == 0 ? "pcc" : "scc" + std::to_string(index);
}

bool has_level(const Levels& levels) {
  return !std::isnan(strongest(levels));
}

std::string text_of(Technology technology) {
  return technology == Technology::kLte ? "LTE" : "NR";
}

// NR's RSSI is shown as its receive gain.
bool is_shown(const Carrier& carrier, const Measure& measure) {
  return has_level(carrier.*measure.levels) &&
         (carrier.name.technology == Technology::kLte || measure.levels != &Carrier::rssi);
}

// One measure or gain.
void append_row(std::string& text, const std::string& title, const Levels& levels) {
  text += left_aligned("    " + title, 16);
  for (const double level : levels) text += ' ' + right_aligned(level_text(level), 8);
  text += "\n";
}

void append_subscription(std::string& text, const SubscriptionReading& reading) {
  text += "subscription " + std::to_string(reading.sub) + ": " + state_text(reading) + "\n";
  for (const Carrier& carrier : reading.carriers) {
    text += "  " + text_of(carrier.name);
    if (carrier.channel) text += "  channel " + std::to_string(*carrier.channel);
    if (carrier.pci) text += "  PCI " + std::to_string(*carrier.pci);
    text += "\n";
    for (const Measure& measure : kMeasures) {
      if (is_shown(carrier, measure)) append_row(text, measure.title, carrier.*measure.levels);
    }
  }
  const std::vector<GainRow> gains = gain_rows(reading);
  if (!gains.empty()) text += "  receive gain\n";
  for (const GainRow& row : gains) append_row(text, std::string(row.title) + " dBm", row.levels);
  if (const std::string antennas = antennas_text(reading); !antennas.empty()) text += "  antennas  " + antennas + "\n";
}

// RSRP and SNR by carrier index, with a dash for one that is not there between others.
std::string carriers_text(const SubscriptionReading& sub, Technology technology) {
  std::string text;
  uint32_t index = 0;
  for (const Carrier& carrier : sub.carriers) {
    if (carrier.name.technology != technology) continue;
    if (text.empty()) text = "  " + text_of(technology);
    for (; index < carrier.name.index; ++index) text += " -";
    ++index;
    text += ' ' + whole_level_text(strongest(carrier.rsrp));
    if (has_level(carrier.snr)) text += '/' + whole_level_text(strongest(carrier.snr));
  }
  return text;
}

// "rx 1 2 3 0 (was 0 1 2 3)": the antennas of the chains.
void append_switches(std::string& text, const char* title, const std::vector<AntennaSwitch>& switches) {
  if (switches.empty()) return;
  std::string before;
  bool is_switched = false;
  text += (text.empty() ? "" : ", ") + std::string(title);
  for (const AntennaSwitch& each : switches) {
    text += ' ' + std::to_string(each.now);
    before += ' ' + std::to_string(each.before);
    is_switched |= each.now != each.before;
  }
  if (is_switched) text += " (was" + before + ")";
}

Json switches_json(const std::vector<AntennaSwitch>& switches) {
  Json list = Json::array();
  for (const AntennaSwitch& each : switches) list.push_back({{"before", each.before}, {"now", each.now}});
  return list;
}

// A level that is not a number is printed as null.
Json carrier_json(const Carrier& carrier) {
  Json object = {{"carrier", word_of(carrier.name)}};
  if (carrier.channel) object["channel"] = *carrier.channel;
  if (carrier.pci) object["pci"] = *carrier.pci;
  for (const Measure& measure : kMeasures) {
    if (!is_shown(carrier, measure)) continue;
    object[std::string(measure.word) + "_" + measure.unit] = carrier.*measure.levels;
  }
  return object;
}

Json subscription_json(const SubscriptionReading& reading) {
  Json object = {{"sub", reading.sub}};
  object["mode"] = reading.mode ? Json(*reading.mode) : Json();
  object["tx_power_dbm"] = reading.tx_power ? Json(*reading.tx_power) : Json();
  object["carriers"] = Json::array();
  for (const Carrier& carrier : reading.carriers) object["carriers"].push_back(carrier_json(carrier));
  for (const GainRow& row : gain_rows(reading)) object["gain_dbm"][row.word] = row.levels;
  if (!reading.rx_antennas.empty()) object["rx_antennas"] = switches_json(reading.rx_antennas);
  if (!reading.tx_antennas.empty()) object["tx_antennas"] = switches_json(reading.tx_antennas);
  if (const auto& transmit = reading.transmit_switching) {
    object["transmit_switching"] = {{"antennas", transmit->antennas},
                                    {"switch_path", transmit->switch_path},
                                    {"signal_path", transmit->signal_path},
                                    {"before", transmit->configuration.before},
                                    {"now", transmit->configuration.now}};
  }
  return object;
}

}  // namespace

Reading read_signal(std::span<const uint32_t> subs) {
  Reading reading{WallClock::now(), {}};
  for (const uint32_t sub : subs) reading.subs.push_back(read_subscription(sub));
  return reading;
}

double strongest(const Levels& levels) {
  double best = kNoLevel;
  for (const double level : levels) best = std::fmax(best, level);
  return best;
}

std::string text_of(const CarrierName& name) {
  return text_of(name.technology) + ' ' + position(name.index);
}

std::string word_of(const CarrierName& name) {
  return (name.technology == Technology::kLte ? "lte_" : "nr_") + position(name.index);
}

std::optional<CarrierName> carrier_of_word(const std::string& word) {
  for (const Technology technology : {Technology::kLte, Technology::kNr}) {
    for (uint32_t index = 0; index < kMostIndices; ++index) {
      if (const CarrierName name{technology, index}; word_of(name) == word) return name;
    }
  }
  return std::nullopt;
}

std::string mode_text(const std::optional<uint32_t>& mode) {
  if (!mode) return "no mode";
  if (*mode == kNoService) return "no service";
  if (*mode == MODEM_SYS_MODE_LTE) return "LTE";
  if (*mode == MODEM_SYS_MODE_NR) return "NR";
  return "mode " + std::to_string(*mode);
}

std::string level_text(double level) {
  if (std::isnan(level)) return "-";
  char text[32];
  snprintf(text, sizeof text, "%.1f", level);
  return text;
}

std::string whole_level_text(double level) {
  return std::isnan(level) ? "-" : std::to_string(std::lround(level));
}

std::vector<GainRow> gain_rows(const SubscriptionReading& reading) {
  std::vector<GainRow> rows;
  const auto add = [&rows](const char* title, const char* word, const Levels& levels) {
    if (has_level(levels)) rows.push_back({title, word, levels});
  };
  for (const Carrier& carrier : reading.carriers) {
    if (carrier.name.technology == Technology::kNr) add("NR", "nr", carrier.rssi);
  }
  add("WCDMA", "wcdma", reading.wcdma_gain);
  add("GSM", "gsm", reading.gsm_gain);
  return rows;
}

std::string state_text(const SubscriptionReading& reading) {
  std::string text = mode_text(reading.mode);
  if (reading.tx_power) text += ", transmit power " + std::to_string(*reading.tx_power) + " dBm";
  return text;
}

std::string antennas_text(const SubscriptionReading& reading) {
  std::string text;
  append_switches(text, "rx", reading.rx_antennas);
  append_switches(text, "tx", reading.tx_antennas);
  if (const auto& transmit = reading.transmit_switching) {
    append_switches(text, "configuration", {transmit->configuration});
  }
  return text;
}

std::string reading_text(const Reading& reading) {
  std::string text = left_aligned(local_text(reading.time), 16);
  for (size_t chain = 0; chain < kChains; ++chain) text += "      rx" + std::to_string(chain);
  text += "\n";
  for (const SubscriptionReading& sub : reading.subs) append_subscription(text, sub);
  return text;
}

std::string reading_line(const Reading& reading) {
  std::string text;
  for (const SubscriptionReading& sub : reading.subs) {
    if (!text.empty()) text += "\n";
    text += local_text(reading.time) + "  sub " + std::to_string(sub.sub) + "  " + left_aligned(mode_text(sub.mode), 4);
    text += left_aligned(sub.tx_power ? "  tx " + std::to_string(*sub.tx_power) : "", 7);
    for (const Technology technology : {Technology::kLte, Technology::kNr}) text += carriers_text(sub, technology);
  }
  return text;
}

Json reading_json(const Reading& reading) {
  Json document = {{"time", utc_text(reading.time)}, {"subscriptions", Json::array()}};
  for (const SubscriptionReading& sub : reading.subs) document["subscriptions"].push_back(subscription_json(sub));
  return document;
}

}  // namespace pelmar::cli
