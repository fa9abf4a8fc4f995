// Hydra's client of the library, and the statistics client id that the modem gives it.
//
// Hydra is open while it holds a client id. The statistics client id outlives the client: the next id overwrites it,
// and nothing clears it. There is no lock: callers use hydra on one thread at a time.
#include <atomic>

#include "modem_hydra.h"
#include "modem_hydra_mgr_metrics.h"
#include "pelmar_log_site.h"

namespace pelmar {
namespace {

constexpr uint32_t kFeature = 2;
constexpr int32_t kNoId = -1;
constexpr int32_t kStatsClientIdLimit = 10;  // an id of 10 or more is logged and kept

// The result of commands while hydra is closed, which is no error.
constexpr modem_api_result kNothingDone = MODEM_API_SUCCESS;

// Negative: no id.
constinit std::atomic<int32_t> g_hydra_client_id{kNoId};
constinit std::atomic<int32_t> g_hydra_stats_client_id{kNoId};

bool is_open(const log::Place& here) {
  if (modem_hydra_api_is_inited() != 0) return true;
  PELMAR_LOG_ERROR_AT(here, "The hydra is not inited, do nothing");
  return false;
}

bool has_stats_client(const log::Place& here) {
  if (modem_hydra_stats_client_is_inited() != 0) return true;
  PELMAR_LOG_ERROR_AT(here, "The hydra stats_clien is not inited, do nothing");
  return false;
}

void free_client() {
  if (g_hydra_client_id.load() == kNoId) return;
  modem_api_free_client(g_hydra_client_id.load());
  g_hydra_client_id.store(kNoId);
}

uint8_t modem_hydra_get_feature_status(uint8_t* enabled, uint8_t* effective) {
  if (!is_open(PELMAR_HERE)) return 0;
  const modem_api_result ret =
      modem_api_get_hydra_feature_status(g_hydra_client_id.load(), kFeature, enabled, effective);
  PELMAR_LOG_DEBUG("ret = %d", ret);
  return ret == MODEM_API_SUCCESS ? 1 : 0;
}

uint8_t modem_hydra_set_feature_status(uint8_t enable, uint8_t option_valid, uint8_t option) {
  if (!is_open(PELMAR_HERE)) return 0;
  const modem_api_result ret =
      modem_api_set_hydra_feature_status(g_hydra_client_id.load(), kFeature, enable, option_valid, option);
  PELMAR_LOG_DEBUG("ret = %d", ret);
  return ret == MODEM_API_SUCCESS ? 1 : 0;
}

modem_api_result modem_hydra_set_vs_event_report() {
  return is_open(PELMAR_HERE) ? modem_api_set_vs_event_report(g_hydra_client_id.load()) : kNothingDone;
}

// Enabling stores the new id on success; disabling sends the present one.
modem_api_result modem_hydra_set_modem_stats_report_status(uint8_t flag) {
  if (!is_open(PELMAR_HERE)) return kNothingDone;
  auto stats_client_id = static_cast<uint32_t>(g_hydra_stats_client_id.load());
  const modem_api_result ret =
      modem_api_set_modem_stats_report_status(g_hydra_client_id.load(), flag, &stats_client_id);
  if (flag != 0 && ret == MODEM_API_SUCCESS) g_hydra_stats_client_id.store(static_cast<int32_t>(stats_client_id));
  return ret;
}

// How the events that carry reports are switched on or off.
struct EventSwitch {
  const char* verb;
  const char* name;
  modem_api_result (*set_event)(int32_t client_id, int32_t event);
};

constexpr EventSwitch kEnable = {"enable", "modem_hydra_add_modem_event", modem_api_add_modem_event};
constexpr EventSwitch kDisable = {"disable", "modem_hydra_remove_modem_event", modem_api_remove_modem_event};

modem_api_result set_event(const EventSwitch& row, int32_t event) {
  return is_open(PELMAR_PLACE_AS(row.name)) ? row.set_event(g_hydra_client_id.load(), event) : kNothingDone;
}

// MODEM_API_ERR_NO_EFFECT, which only a removal returns, counts as success: the second event and the modem's setting
// are then left as they are.
bool switch_events(const Operation& operation, const EventSwitch& row) {
  modem_api_result ret = set_event(row, MODEM_API_EVENT_VS_REPORT_A);
  PELMAR_LOG_DEBUG_IN(operation, "%s, modem_api_ret = %d", row.verb, ret);
  if (ret == MODEM_API_ERR_NO_EFFECT) {
    PELMAR_LOG_DEBUG_IN(operation, "%s already done", row.name);
    return true;
  }
  if (ret == MODEM_API_SUCCESS) ret = set_event(row, MODEM_API_EVENT_VS_REPORT_B);
  if (ret != MODEM_API_SUCCESS) {
    PELMAR_LOG_DEBUG_IN(operation, "%s fail, modem_api_ret = %d", row.name, ret);
    return false;
  }
  ret = modem_hydra_set_vs_event_report();
  if (ret == MODEM_API_SUCCESS) return true;
  PELMAR_LOG_DEBUG_IN(operation, "modem_hydra_set_vs_event_report fail, modem_api_ret = %d", ret);
  return false;
}

bool switch_reporting(const Operation& operation, uint8_t flag) {
  if (!switch_events(operation, flag != 0 ? kEnable : kDisable)) return false;
  const modem_api_result ret = modem_hydra_set_modem_stats_report_status(flag);
  PELMAR_LOG_DEBUG_IN(operation, "modem_hydra_set_modem_stats_report_status, modem_api_ret = %d, stats_client_id = %d",
                      ret, g_hydra_stats_client_id.load());
  if (ret == MODEM_API_SUCCESS) return true;
  PELMAR_LOG_DEBUG_IN(operation, "modem_hydra_set_modem_stats_report_status failed, modem_api_ret = %d", ret);
  return false;
}

// Returns 0 on success and 1 on a failure. It logs failures at debug level too.
uint8_t modem_hydra_stats_set_report_status(uint8_t flag) {
  Operation operation(PELMAR_HERE);
  PELMAR_LOG_DEBUG("flag = %d, stats_client_id = %d", flag, g_hydra_stats_client_id.load());
  return switch_reporting(operation, flag) ? 0 : 1;
}

}  // namespace

void modem_hydra_callback_event_cb(uint32_t event, const uint8_t* /*payload*/, uint32_t length) {
  PELMAR_LOG_DEBUG("do nothing, event_id = %d, data_len = %d", static_cast<int>(event), static_cast<int>(length));
}

void modem_hydra_operational_status_cb(uint32_t notice, uint32_t client_type) {
  PELMAR_LOG_DEBUG("do nothing, event_id = %d, client_type = %d", static_cast<int>(notice),
                   static_cast<int>(client_type));
}

}  // namespace pelmar

using namespace pelmar;

uint8_t modem_hydra_api_init() {
  Operation operation(PELMAR_HERE);
  return operation.exit(modem_hydra_api_init_ex(modem_hydra_callback_event_cb, modem_hydra_operational_status_cb));
}

// The id alone decides whether hydra is open; the result of modem_api_init_client() is ignored.
uint8_t modem_hydra_api_init_ex(modem_api_event_cb event_cb, modem_api_status_cb status_cb) {
  Operation operation(PELMAR_HERE);
  PELMAR_LOG_DEBUG("old g_hydra_client_id = %d", g_hydra_client_id.load());
  free_client();
  // Compatibility: this drops every other client of the process.
  modem_api_release();
  modem_api_init();
  int32_t client_id = kNoId;
  modem_api_init_client(MODEM_API_CLIENT_VS, event_cb, status_cb, &client_id);
  g_hydra_client_id.store(client_id);
  PELMAR_LOG_DEBUG("new g_hydra_client_id = %d", client_id);
  if (client_id < 0) PELMAR_LOG_ERROR("modem_api_init_client failed");
  return operation.exit(static_cast<uint8_t>(g_hydra_client_id.load() >= 0 ? 1 : 0));
}

uint8_t modem_hydra_api_is_inited() {
  Operation operation(PELMAR_HERE);
  PELMAR_LOG_DEBUG("g_hydra_client_id = %d", g_hydra_client_id.load());
  return operation.exit(static_cast<uint8_t>(g_hydra_client_id.load() >= 0 ? 1 : 0));
}

modem_api_result modem_hydra_api_deinit() {
  Operation operation(PELMAR_HERE);
  PELMAR_LOG_DEBUG("g_hydra_client_id = %d", g_hydra_client_id.load());
  free_client();
  return operation.exit(modem_api_release());
}

// A status that cannot be read counts as not started.
uint8_t modem_hydra_stats_is_started() {
  Operation operation(PELMAR_HERE);
  uint8_t enabled = 0;
  uint8_t effective = 0;
  const uint8_t result = modem_hydra_get_feature_status(&enabled, &effective);
  PELMAR_LOG_DEBUG("result = %d, enabled = %d, effective = %d", result, enabled, effective);
  return operation.exit(enabled);
}

uint8_t modem_hydra_stats_start() {
  Operation operation(PELMAR_HERE);
  if (!is_open(PELMAR_HERE)) return operation.exit(uint8_t{0});
  return operation.exit(modem_hydra_set_feature_status(1, 1, 1));
}

uint8_t modem_hydra_stats_stop() {
  Operation operation(PELMAR_HERE);
  if (!is_open(PELMAR_HERE)) return operation.exit(uint8_t{0});
  return operation.exit(modem_hydra_set_feature_status(0, 0, 0));
}

uint8_t modem_hydra_stats_client_is_inited() {
  Operation operation(PELMAR_HERE);
  PELMAR_LOG_DEBUG("g_hydra_stats_client_id = %d", g_hydra_stats_client_id.load());
  return operation.exit(static_cast<uint8_t>(g_hydra_stats_client_id.load() >= 0 ? 1 : 0));
}

// Compatibility: the result is 1 even if the modem refuses or the id is out of range.
uint8_t modem_hydra_stats_id_alloc() {
  Operation operation(PELMAR_HERE);
  modem_hydra_stats_id_free();
  const uint8_t result = modem_hydra_stats_set_report_status(1);
  const int32_t id = g_hydra_stats_client_id.load();
  PELMAR_LOG_DEBUG("modem_hydra_stats_set_report_status, TRUE, result = %d, g_hydra_stats_client_id = %d", result, id);
  if (id >= kStatsClientIdLimit) {
    PELMAR_LOG_DEBUG("g_hydra_stats_client_id is out of range, can not >= %d", kStatsClientIdLimit);
  }
  return operation.exit(uint8_t{1});
}

void modem_hydra_stats_id_free() {
  Operation operation(PELMAR_HERE);
  if (modem_hydra_stats_client_is_inited() == 0) return operation.finish("g_hydra_stats_client_id is not inited");
  const uint8_t result = modem_hydra_stats_set_report_status(0);
  PELMAR_LOG_DEBUG("modem_hydra_stats_set_report_status, FALSE, result = %d, g_hydra_stats_client_id = %d", result,
                   g_hydra_stats_client_id.load());
}

modem_api_result modem_hydra_register_modem_stats_data(uint8_t option1_valid, uint16_t option1, uint8_t option2_valid,
                                                       uint16_t option2, const modem_api_stats_registration* records,
                                                       uint32_t record_count) {
  Operation operation(PELMAR_HERE);
  if (!is_open(PELMAR_HERE) || !has_stats_client(PELMAR_HERE)) return operation.exit(kNothingDone);
  return operation.exit(modem_api_register_modem_stats_data(
      g_hydra_client_id.load(), static_cast<uint32_t>(g_hydra_stats_client_id.load()), option1_valid, option1,
      option2_valid, option2, records, record_count));
}

modem_api_result modem_hydra_deregister_modem_stats_data(uint8_t option1_valid, uint16_t option1, uint8_t option2_valid,
                                                         uint16_t option2, const uint32_t* ids, uint32_t id_count) {
  Operation operation(PELMAR_HERE);
  if (!is_open(PELMAR_HERE) || !has_stats_client(PELMAR_HERE)) return operation.exit(kNothingDone);
  return operation.exit(modem_api_deregister_modem_stats_data(
      g_hydra_client_id.load(), static_cast<uint32_t>(g_hydra_stats_client_id.load()), option1_valid, option1,
      option2_valid, option2, ids, id_count));
}

modem_api_result modem_hydra_get_stats_parameter(uint16_t sub, uint16_t slot, stats_para_data* data) {
  Operation operation(PELMAR_HERE);
  if (!is_open(PELMAR_HERE)) return operation.exit(kNothingDone);
  return operation.exit(modem_api_get_stats_parameter(g_hydra_client_id.load(), sub, slot, data));
}

modem_api_result modem_hydra_clear_stats_parameter(uint16_t sub, uint16_t slot, int32_t id_count, const uint32_t* ids) {
  Operation operation(PELMAR_HERE);
  if (!is_open(PELMAR_HERE)) return operation.exit(kNothingDone);
  return operation.exit(modem_api_clear_stats_parameter(g_hydra_client_id.load(), sub, slot, id_count, ids));
}
