// Statistics commands: feature status, report switching, registration, reading and clearing of values.
//
// Register and deregister send the first 100 records or ids; get and clear refuse a count outside 1 to 10. Counts above
// a capacity are cut without a log line, except the value_len of a request, which is sent as it is. A failure does not
// change the caller's outputs.
#include <algorithm>

#include "modem_api_command.h"
#include "pelmar_log.h"
#include "pelmar_string.h"

namespace pelmar {
namespace {

// Copies the valid bytes as they are, and a value only if its valid byte is not zero.
template <typename Request>
void set_options(Request& request, uint8_t option1_valid, uint16_t option1, uint8_t option2_valid, uint16_t option2) {
  request.option1_valid = option1_valid;
  if (option1_valid != 0) request.option1 = option1;
  request.option2_valid = option2_valid;
  if (option2_valid != 0) request.option2 = option2;
}

void copy_registration(const modem_api_stats_registration& from, vs::StatsEntry& to) {
  to.stats_id = from.id;
  to.para_num = std::min<uint32_t>(from.para_num, vs::kMaxStatsParameters);
  std::copy_n(from.parameters, to.para_num, to.parameters);
  to.flag = from.flag;
  std::copy(std::begin(from.block), std::end(from.block), to.block);
  to.trailer = from.trailer;
}

// Logs an entry: the first word of its value, and the following bytes as pelmar_get_hex_str() writes them.
void log_entry(const Operation& operation, uint32_t index, const stats_para_entry& entry) {
  const bool passes = pelmar_hal_get_logcat_print_flag(PELMAR_LOG_LEVEL_DEBUG) ||
                      pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_DEBUG);
  if (!passes) return;
  int32_t type = 0;
  std::memcpy(&type, entry.value, sizeof(type));
  char text[30] = {};
  pelmar_get_hex_str(text, sizeof(text), entry.value + sizeof(type));
  PELMAR_LOG_DEBUG_IN(operation, "ids[%d] = %d, value_len = %d, type = %d, value: %s", static_cast<int>(index),
                      static_cast<int>(entry.id), static_cast<int>(entry.value_len), type, text);
}

void copy_values(const vs::GetStatsParameterResponse& response, stats_para_data& data) {
  data.para_num = std::min<uint32_t>(response.record_count, vs::kMaxDataRecords);
  for (uint32_t i = 0; i < data.para_num; ++i) {
    const vs::DataRecord& from = response.records[i];
    stats_para_entry& to = data.entries[i];
    to.sub = from.sub | static_cast<uint32_t>(from.sub_high) << 16;
    to.id = from.id;
    to.value_len = std::min<uint32_t>(from.data_len, vs::kMaxDataBytes);
    std::copy_n(from.data, to.value_len, to.value);
  }
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

int32_t modem_api_get_hydra_feature_status(int32_t client_id, uint32_t feature, uint8_t* enabled, uint8_t* effective) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  if (enabled == nullptr) return command.refuse_null(MODEM_API_ERR_INVALID_PARAM);
  Zeroed<vs::GetFeatureStatusRequest> request;
  request.feature = feature;
  Zeroed<vs::GetFeatureStatusResponse> response;
  const modem_api_result result = command.log_result(exchange_vs(vs::kGetFeatureStatus, request, response));
  if (result != MODEM_API_SUCCESS) return command.exit(result);
  *enabled = response.enabled;
  if (effective != nullptr) *effective = response.effective;
  return command.exit(MODEM_API_SUCCESS);
}

int32_t modem_api_set_hydra_feature_status(int32_t client_id, uint32_t feature, uint8_t enable, uint8_t option_valid,
                                           uint8_t option) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  Zeroed<vs::SetFeatureStatusRequest> request;
  request.feature = feature;
  request.enable = enable;
  request.option_valid = option_valid;
  request.option = option;
  return command.exit(command.log_result(exchange_vs(vs::kSetFeatureStatus, request)));
}

int32_t modem_api_set_modem_stats_report_status(int32_t client_id, uint8_t report, uint32_t* stats_client_id) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  // Compatibility: the other commands of this file return MODEM_API_ERR_INVALID_PARAM for a null pointer.
  if (stats_client_id == nullptr) return command.refuse_null(MODEM_API_ERR_NO_MEMORY);
  Zeroed<vs::SetStatsReportStatusRequest> request;
  request.report = report;
  if (report == 0) {
    request.stats_client_id_valid = 1;
    request.stats_client_id = *stats_client_id;
  }
  Zeroed<vs::SetStatsReportStatusResponse> response;
  const modem_api_result result = command.log_result(exchange_vs(vs::kSetStatsReportStatus, request, response));
  if (report == 0 || result != MODEM_API_SUCCESS) return command.exit(result);
  if (response.stats_client_id_valid == 0) return command.exit(MODEM_API_ERR_GENERIC);
  *stats_client_id = response.stats_client_id;
  return command.exit(MODEM_API_SUCCESS);
}

int32_t modem_api_register_modem_stats_data(int32_t client_id, uint32_t stats_client_id, uint8_t option1_valid,
                                            uint16_t option1, uint8_t option2_valid, uint16_t option2,
                                            const modem_api_stats_registration* records, uint32_t record_count) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  if (records == nullptr) return command.refuse_null(MODEM_API_ERR_INVALID_PARAM);
  if (record_count == 0) return command.refuse(MODEM_API_ERR_INVALID_PARAM);
  Zeroed<vs::RegisterStatsRequest> request;
  request.stats_client_id = stats_client_id;
  set_options(request, option1_valid, option1, option2_valid, option2);
  request.entry_count = std::min<uint32_t>(record_count, vs::kMaxRegistrations);
  for (uint32_t i = 0; i < request.entry_count; ++i) copy_registration(records[i], request.entries[i]);
  return command.exit(command.log_result(exchange_vs(vs::kRegisterStats, request)));
}

int32_t modem_api_deregister_modem_stats_data(int32_t client_id, uint32_t stats_client_id, uint8_t option1_valid,
                                              uint16_t option1, uint8_t option2_valid, uint16_t option2,
                                              const uint32_t* ids, uint32_t id_count) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  if (ids == nullptr) return command.refuse_null(MODEM_API_ERR_INVALID_PARAM);
  if (id_count == 0) return command.refuse(MODEM_API_ERR_INVALID_PARAM);
  Zeroed<vs::DeregisterStatsRequest> request;
  request.stats_client_id = stats_client_id;
  set_options(request, option1_valid, option1, option2_valid, option2);
  request.id_count = std::min<uint32_t>(id_count, vs::kMaxRegistrations);
  std::copy_n(ids, request.id_count, request.ids);
  return command.exit(command.log_result(exchange_vs(vs::kDeregisterStats, request)));
}

int32_t modem_api_get_stats_parameter(int32_t client_id, uint16_t sub, uint16_t slot, stats_para_data* data) {
  Command command(PELMAR_HERE);
  PELMAR_LOG_DEBUG("client_id = %d, sub = %d, slot = %d", client_id, sub, slot);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  if (data == nullptr) return command.finish(MODEM_API_ERR_INVALID_PARAM, "stats_para_data is null");
  const uint32_t count = data->para_num;
  if (count < 1 || count > MODEM_API_STATS_ENTRIES) {
    PELMAR_LOG_DEBUG("para_num(%d) is invalid", static_cast<int>(count));
    return command.exit(MODEM_API_ERR_INVALID_PARAM);
  }
  Zeroed<vs::GetStatsParameterRequest> request;
  request.sub = sub;
  request.slot = slot;
  request.record_count = count;
  for (uint32_t i = 0; i < count; ++i) {
    // The entry's subscription is not sent.
    request.records[i].id = data->entries[i].id;
    request.records[i].data_len = data->entries[i].value_len;
    std::memcpy(request.records[i].data, data->entries[i].value, sizeof(request.records[i].data));
    log_entry(command, i, data->entries[i]);
  }
  Zeroed<vs::GetStatsParameterResponse> response;
  const modem_api_result result = exchange_vs(vs::kGetStatsParameter, request, response);
  if (result != MODEM_API_SUCCESS) return command.exit(result);
  if (response.records_valid != 1) return command.exit(MODEM_API_ERR_GENERIC);
  copy_values(response, *data);
  return command.exit(MODEM_API_SUCCESS);
}

int32_t modem_api_clear_stats_parameter(int32_t client_id, uint16_t sub, uint16_t slot, int32_t id_count,
                                        const uint32_t* ids) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  if (id_count < 1 || id_count > MODEM_API_STATS_ENTRIES) return command.refuse(MODEM_API_ERR_INVALID_PARAM);
  if (ids == nullptr) return command.refuse_null(MODEM_API_ERR_INVALID_PARAM);
  Zeroed<vs::ClearStatsParameterRequest> request;
  request.sub = sub;
  request.slot = slot;
  request.id_count = static_cast<uint32_t>(id_count);
  std::copy_n(ids, id_count, request.ids);
  return command.exit(exchange_vs(vs::kClearStatsParameter, request));
}
