#include "signal/reading.h"

#include <cstdio>

#include "modem_hydra.h"

namespace pelmar::cli {

namespace {

constexpr uint32_t kNoService = 0;    // a mode of the modem's
constexpr uint32_t kMostIndices = 7;  // primary and six secondary carriers

std::string position(uint32_t index) {
  return index == 0 ? "pcc" : "scc" + std::to_string(index);
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

}  // namespace pelmar::cli
