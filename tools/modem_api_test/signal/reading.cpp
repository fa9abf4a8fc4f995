#include "signal/reading.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "modem_hydra.h"

namespace pelmar::cli {

namespace {

constexpr uint32_t kNoService = 0;    // a mode of the modem's
constexpr uint32_t kMostIndices = 7;  // primary and six secondary carriers

std::string position(uint32_t index) {
  return index == 0 ? "pcc" : "scc" + std::to_string(index);
}

// NR's RSSI is shown as its receive gain.
bool is_shown(const Carrier& carrier, const Measure& measure) {
  return has_level(carrier.*measure.levels) &&
         (carrier.name.technology == Technology::kLte || measure.levels != &Carrier::rssi);
}

// Right-aligned columns of one measure or gain.
std::string level_columns(const Levels& levels) {
  std::string text;
  for (const double level : levels) text += ' ' + right_aligned(level_text(level), 8);
  return text;
}

std::string carrier_heading(const Carrier& carrier) {
  std::string text = text_of(carrier.name);
  if (carrier.channel) text += "  channel " + std::to_string(*carrier.channel);
  if (carrier.pci) text += "  PCI " + std::to_string(*carrier.pci);
  return text;
}

void append_row(std::string& text, const std::string& title, const Levels& levels) {
  text += left_aligned("    " + title, 16) + level_columns(levels) + "\n";
}

void append_subscription(std::string& text, const SubscriptionReading& reading) {
  text += "subscription " + std::to_string(reading.sub) + ": " + state_text(reading) + "\n";
  for (const Carrier& carrier : reading.carriers) {
    text += "  " + carrier_heading(carrier) + "\n";
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

Json levels_json(const Levels& levels) {
  Json list = Json::array();
  for (const double level : levels) list.push_back(std::isnan(level) ? Json() : Json(level));
  return list;
}

Json switches_json(const std::vector<AntennaSwitch>& switches) {
  Json list = Json::array();
  for (const AntennaSwitch& each : switches) list.push_back({{"before", each.before}, {"now", each.now}});
  return list;
}

Json carrier_json(const Carrier& carrier) {
  Json object = {{"carrier", word_of(carrier.name)}};
  if (carrier.channel) object["channel"] = *carrier.channel;
  if (carrier.pci) object["pci"] = *carrier.pci;
  for (const Measure& measure : kMeasures) {
    if (is_shown(carrier, measure))
      object[std::string(measure.word) + "_" + measure.unit] = levels_json(carrier.*measure.levels);
  }
  return object;
}

Json subscription_json(const SubscriptionReading& reading) {
  Json object = {{"sub", reading.sub}};
  object["mode"] = reading.mode ? Json(*reading.mode) : Json();
  object["tx_power_dbm"] = reading.tx_power ? Json(*reading.tx_power) : Json();
  object["carriers"] = Json::array();
  for (const Carrier& carrier : reading.carriers) object["carriers"].push_back(carrier_json(carrier));
  for (const GainRow& row : gain_rows(reading)) object["gain_dbm"][row.word] = levels_json(row.levels);
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

double strongest(const Levels& levels) {
  double best = kNoLevel;
  for (const double level : levels) best = std::fmax(best, level);
  return best;
}

bool has_level(const Levels& levels) {
  return !std::isnan(strongest(levels));
}

std::string text_of(Technology technology) {
  return technology == Technology::kLte ? "LTE" : "NR";
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
