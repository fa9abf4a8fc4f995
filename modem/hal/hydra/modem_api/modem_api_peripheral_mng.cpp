// The vote of this process for the modem's power.
//
// The initialisation writes the connection record; all other functions read it without a lock, also on the manager's
// thread.
#include "modem_api_peripheral_mng.h"

#include <cstdio>

#include "pelmar_log_site.h"
#include "pelmar_thread.h"
#include "pm-service.h"

constinit modem_api_peripheral_mng_connection modem_api_peripheral_mng_conn_info = {};
constinit esoc_info_record esoc_info = {};

namespace pelmar {
namespace {

modem_api_peripheral_mng_connection& g_connection = modem_api_peripheral_mng_conn_info;

void on_event(void* client_data, pm_event event) {
  modem_api_pm_event_notifier(client_data, event);
}

void log_event(const Operation& operation, const char* name, int32_t event) {
  constexpr const char* kTexts[] = {" is going off-line", " is off-line", " going on-line", " is on-line"};
  const bool is_valid = event >= EVENT_PERIPH_GOING_OFFLINE && event <= EVENT_PERIPH_IS_ONLINE;
  PELMAR_LOG_DEBUG_IN(operation, "%s%s\n", name, is_valid ? kTexts[event] : ": invalid event");
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

int32_t modem_api_peripheral_mng_init(const char* device_name) {
  Operation operation(PELMAR_HERE);
  std::snprintf(g_connection.name, sizeof(g_connection.name), "%s", device_name);
  // The platform stores the handle in the record, because the first event may come before the registration returns.
  void* const previous_handle = load(g_connection.handle);
  pm_event state = EVENT_PERIPH_IS_OFFLINE;
  const int ret =
      pm_client_register(on_event, &g_connection, g_connection.name, "MODEM_API", &state, &g_connection.handle);
  if (ret != 0) {
    store(g_connection.handle, previous_handle);
    PELMAR_LOG_ERROR("Failed to register for %s\n", g_connection.name);
    return operation.exit(1);
  }
  PELMAR_LOG_DEBUG("Successful registration\n");
  return operation.exit(0);
}

int32_t modem_api_peripheral_mng_vote() {
  Operation operation(PELMAR_HERE);
  void* const handle = load(g_connection.handle);
  if (handle == nullptr) return operation.exit(0);
  const int ret = pm_client_connect(handle);
  if (ret != 0) PELMAR_LOG_ERROR("%s connect failed %d", g_connection.name, ret);
  return operation.exit(ret);
}

void modem_api_peripheral_mng_release_vote() {
  Operation operation(PELMAR_HERE);
  void* const handle = load(g_connection.handle);
  if (handle == nullptr) return;
  const int ret = pm_client_disconnect(handle);
  if (ret != 0) PELMAR_LOG_ERROR("%s disconnect failed %d", g_connection.name, ret);
}

void modem_api_peripheral_mng_deinit() {
  Operation operation(PELMAR_HERE);
  void* const handle = load(g_connection.handle);
  if (handle != nullptr) pm_client_unregister(handle);
}

void modem_api_pm_event_notifier(void* client_data, int32_t event) {
  Operation operation(PELMAR_HERE);
  const auto& connection = *static_cast<const modem_api_peripheral_mng_connection*>(client_data);
  pm_client_event_acknowledge(load(connection.handle), static_cast<pm_event>(event));
  log_event(operation, connection.name, event);
}
