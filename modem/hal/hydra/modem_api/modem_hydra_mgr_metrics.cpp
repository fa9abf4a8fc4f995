// The decoders. Each fetches one statistics value and copies its fields (modem_hydra_mgr_metrics.h) to a record. All
// lines of a decoder carry its name.
#include "modem_hydra_mgr_metrics.h"

#include <cstring>
#include <mutex>

#include "pelmar_log_site.h"

namespace pelmar {
namespace {

// The low 32 bits, as log lines show it.
uint32_t address_of(const void* record) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(record));
}

bool fetch(const log::Place& decoder, uint32_t sub, uint32_t id) {
  if (modem_hydra_data_get(sub, id)) return true;
  PELMAR_LOG_ERROR_AT(decoder, "modem_hydra_data_get failed");
  return false;
}

template <typename Record>
uint8_t fill(const log::Place& decoder, uint32_t sub, uint32_t id, Record* record) {
  if (record == nullptr) {
    PELMAR_LOG_ERROR_AT(decoder, "ptr_hydra_data is NULL");
    return 0;
  }
  if (!fetch(decoder, sub, id)) return 0;
  std::memset(record, 0, sizeof(*record));
  for (const MetricField& field : Metric<Record>::kFields) {
    if (!take_field(decoder, field, record)) return 0;
  }
  return 1;
}

// A decoder of several identifiers logs the identifier.
enum class Identifier { kFixed, kLogged };

template <typename Record>
uint8_t decode(const log::Place& decoder, Identifier identifier, uint32_t sub, uint32_t id, Record* record) {
  PELMAR_LOG_DEBUG_AT(decoder, "function entry ------------->");
  uint8_t ret;
  {
    const std::lock_guard lock(g_decoder_lock);
    if (identifier == Identifier::kLogged) {
      PELMAR_LOG_DEBUG_AT(decoder, "sub = %d, id = %d, ptr_hydra_data = 0x%x", static_cast<int>(sub),
                          static_cast<int>(id), address_of(record));
    } else {
      PELMAR_LOG_DEBUG_AT(decoder, "sub = %d, ptr_hydra_data = 0x%x", static_cast<int>(sub), address_of(record));
    }
    ret = fill(decoder, sub, id, record);
  }
  PELMAR_LOG_DEBUG_AT(decoder, "function exit, ret = %d <-------------", ret);
  return ret;
}

uint8_t modem_hydra_lte_srv_meas_info_get(uint32_t sub, uint32_t id, modem_hydra_lte_srv_meas_info* record) {
  return decode(PELMAR_HERE, Identifier::kLogged, sub, id, record);
}

uint8_t modem_hydra_nr5g_srv_meas_info_get(uint32_t sub, uint32_t id, modem_hydra_nr5g_srv_meas_info* record) {
  return decode(PELMAR_HERE, Identifier::kLogged, sub, id, record);
}

// Reads the technology of the first stack only, if there is a stack.
uint32_t read_system_mode(const log::Place& decoder, uint32_t sub) {
  const std::lock_guard lock(g_decoder_lock);
  PELMAR_LOG_DEBUG_AT(decoder, "sub = %d", static_cast<int>(sub));
  constexpr uint32_t kSystemModeId = 0x2c;
  if (!fetch(decoder, sub, kSystemModeId)) return MODEM_SYS_MODE_UNKNOWN;
  const auto& [stack_max, rat] = Metric<SystemMode>::kFields;
  SystemMode mode = {};
  if (!take_field(decoder, stack_max, &mode) || mode.stack_max == 0) return MODEM_SYS_MODE_UNKNOWN;
  return take_field(decoder, rat, &mode) ? mode.rat : MODEM_SYS_MODE_UNKNOWN;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

// clang-format off

// Decoders with a statistics identifier of their own.
#define PELMAR_DECODER(Record, id)                                      \
  uint8_t Record##_get(uint32_t sub, Record* record) {                  \
    return decode(PELMAR_HERE, Identifier::kFixed, sub, id, record);    \
  }
PELMAR_DECODER(modem_hydra_nr5g_ll1_fw_rx_control_agc,        0x5e)
PELMAR_DECODER(modem_hydra_nr5g_ll1_fw_serving_ftl,           0x70)
PELMAR_DECODER(modem_hydra_nr5g_ml1_antenna_switch_diversity, 0x71)
PELMAR_DECODER(modem_hydra_wcdma_pn_search_edition2,          0x6e)
PELMAR_DECODER(modem_hydra_gsm_l1_rx_diversity_metrics,       0x6f)
PELMAR_DECODER(modem_hydra_mcs_trm_asdiv,                     0x64)
PELMAR_DECODER(modem_hydra_lte_pusch_power_info,              0x62)
PELMAR_DECODER(modem_hydra_nr5g_mac_ul_phy_ch_power_info,     0x5a)
#undef PELMAR_DECODER

// Carriers of the serving cell measurements.
#define PELMAR_CARRIER(Record, carrier, id)                             \
  uint8_t Record##_get_for_##carrier(uint32_t sub, Record* record) {    \
    Operation operation(PELMAR_HERE);                                   \
    return operation.exit(Record##_get(sub, id, record));               \
  }
PELMAR_CARRIER(modem_hydra_lte_srv_meas_info,  pcc,  0x52)
PELMAR_CARRIER(modem_hydra_lte_srv_meas_info,  scc1, 0x67)
PELMAR_CARRIER(modem_hydra_lte_srv_meas_info,  scc2, 0x68)
PELMAR_CARRIER(modem_hydra_lte_srv_meas_info,  scc3, 0x69)
PELMAR_CARRIER(modem_hydra_lte_srv_meas_info,  scc4, 0x6a)
PELMAR_CARRIER(modem_hydra_lte_srv_meas_info,  scc5, 0x6b)
PELMAR_CARRIER(modem_hydra_lte_srv_meas_info,  scc6, 0x6c)
PELMAR_CARRIER(modem_hydra_nr5g_srv_meas_info, pcc,  0x87)
PELMAR_CARRIER(modem_hydra_nr5g_srv_meas_info, scc1, 0x06)
PELMAR_CARRIER(modem_hydra_nr5g_srv_meas_info, scc2, 0x07)
#undef PELMAR_CARRIER

// clang-format on

uint32_t modem_sys_mode_get(uint32_t sub) {
  PELMAR_LOG_DEBUG("function entry ------------->");
  const uint32_t rat = read_system_mode(PELMAR_HERE, sub);
  PELMAR_LOG_DEBUG("function exit, rat = %d <-------------", static_cast<int>(rat));
  return rat;
}
