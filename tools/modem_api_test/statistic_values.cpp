#include "statistic_values.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "json.h"
#include "modem_hydra_mgr_metrics.h"
#include "options.h"

namespace pelmar::cli {

namespace {

// How a value's four-byte words are to be read, its version apart.
enum class Words { kSigned, kUnsigned, kFloat };

struct StatisticRow {
  uint32_t id;
  const char* name;
  std::span<const MetricField> fields;
  Words words = Words::kSigned;
};

template <typename Record>
constexpr std::span<const MetricField> kFieldsOf = Metric<Record>::kFields;

constexpr auto kLteCell = kFieldsOf<modem_hydra_lte_srv_meas_info>;
constexpr auto kNrCell = kFieldsOf<modem_hydra_nr5g_srv_meas_info>;

constexpr StatisticRow kStatistics[] = {
    {0x52, "lte-pcc", kLteCell},
    {0x67, "lte-scc1", kLteCell},
    {0x68, "lte-scc2", kLteCell},
    {0x69, "lte-scc3", kLteCell},
    {0x6a, "lte-scc4", kLteCell},
    {0x6b, "lte-scc5", kLteCell},
    {0x6c, "lte-scc6", kLteCell},
    {0x62, "lte-uplink", kFieldsOf<modem_hydra_lte_pusch_power_info>},
    {0x87, "nr-pcc", kNrCell},
    {0x06, "nr-scc1", kNrCell},
    {0x07, "nr-scc2", kNrCell},
    {0x5e, "nr-rx-gain", kFieldsOf<modem_hydra_nr5g_ll1_fw_rx_control_agc>},
    {0x70, "nr-tracking", kFieldsOf<modem_hydra_nr5g_ll1_fw_serving_ftl>},
    {0x71, "nr-antennas", kFieldsOf<modem_hydra_nr5g_ml1_antenna_switch_diversity>},
    {0x5a, "nr-uplink", kFieldsOf<modem_hydra_nr5g_mac_ul_phy_ch_power_info>, Words::kFloat},
    {0x6e, "wcdma-search", kFieldsOf<modem_hydra_wcdma_pn_search_edition2>},
    {0x6f, "gsm-levels", kFieldsOf<modem_hydra_gsm_l1_rx_diversity_metrics>},
    {0x64, "antenna-switch", kFieldsOf<modem_hydra_mcs_trm_asdiv>},
    {0x2c, "system-mode", kFieldsOf<SystemMode>, Words::kUnsigned},
};

const StatisticRow* find(uint32_t id) {
  const auto found =
      std::find_if(std::begin(kStatistics), std::end(kStatistics), [id](const auto& row) { return row.id == id; });
  return found != std::end(kStatistics) ? found : nullptr;
}

template <typename Number>
Json number_at(const uint8_t* bytes) {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

Json number_of(const StatisticRow& row, const MetricField& field, const uint8_t* bytes) {
  const std::string_view name = field.name;
  if (field.width == 1) return number_at<uint8_t>(bytes);
  if (field.width == 2) return name == "pusch_tx_power" ? number_at<int16_t>(bytes) : number_at<uint16_t>(bytes);
  if (name.starts_with("version") || row.words == Words::kUnsigned) return number_at<uint32_t>(bytes);
  return row.words == Words::kFloat ? number_at<float>(bytes) : number_at<int32_t>(bytes);
}

Json fields_json(const StatisticRow& row, std::span<const uint8_t> value) {
  Json fields = Json::object();
  for (const MetricField& field : row.fields) {
    if (value.size() < field.width) break;
    Json number = number_of(row, field, value.data());
    value = value.subspan(field.width);
    Json& member = fields[field.name];
    if (member.is_null()) {
      member = std::move(number);
    } else {  // several fields have the name
      if (!member.is_array()) member = Json::array({member});
      member.push_back(std::move(number));
    }
  }
  return fields;
}

}  // namespace

std::optional<uint32_t> parse_statistic(const std::string& word) {
  for (const StatisticRow& row : kStatistics) {
    if (row.name == word) return row.id;
  }
  const auto number = parse_number(word, 0, UINT32_MAX);
  if (!number) return std::nullopt;
  return static_cast<uint32_t>(*number);
}

std::string statistic_text(uint32_t id) {
  char digits[16];
  snprintf(digits, sizeof digits, "0x%02x", id);
  const StatisticRow* const row = find(id);
  return row == nullptr ? digits : digits + std::string(" (") + row->name + ")";
}

void put_statistic(Json& object, uint32_t id, std::span<const uint8_t> value) {
  const StatisticRow* const row = find(id);
  if (row == nullptr) return;
  object["name"] = row->name;
  object["fields"] = fields_json(*row, value);
}

std::string statistic_fields_text(uint32_t id, std::span<const uint8_t> value) {
  const StatisticRow* const row = find(id);
  if (row == nullptr) return "";
  const Json fields = fields_json(*row, value);
  std::string text;
  for (const auto& [name, number] : fields.items()) {
    text += (text.empty() ? "" : ", ") + name + ' ' + number.dump();
  }
  return text;
}

}  // namespace pelmar::cli
