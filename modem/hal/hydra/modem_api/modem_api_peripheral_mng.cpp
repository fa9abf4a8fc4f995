// This process as a voter for the modem's power.
//
// The connection record is written by the initialisation and read, without a lock, by everything else, also on the
// manager's thread.
#include "modem_api_peripheral_mng.h"

#include <cstdio>

#include "pelmar_log_site.h"
#include "pm-service.h"
#include "shared_word.h"

constinit modem_api_peripheral_mng_connection modem_api_peripheral_mng_conn_info = {};
constinit esoc_info_record esoc_info = {};

namespace pelmar {
namespace {

modem_api_peripheral_mng_connection& g_connection = modem_api_peripheral_mng_conn_info;

void on_event(void* client_data, pm_event event) {
  modem_api_pm_event_notifier(client_data, event);
}

// The handle goes straight into the record: the first event may come before the registration returns.
int32_t register_voter(const char* function, const char* device_name) {
  std::snprintf(g_connection.name, sizeof(g_connection.name), "%s", device_name);
  void* const previous_handle = load(g_connection.handle);
  pm_event state = EVENT_PERIPH_IS_OFFLINE;
  const int ret =
      pm_client_register(on_event, &g_connection, g_connection.name, "MODEM_API", &state, &g_connection.handle);
  if (ret != 0) {
    store(g_connection.handle, previous_handle);
    PELMAR_LOG_ERROR_AS(function, "Failed to register for %s\n", g_connection.name);
    return 1;
  }
  PELMAR_LOG_DEBUG_AS(function, "Successful registration\n");
  return 0;
}

int32_t vote(const char* function) {
  void* const handle = load(g_connection.handle);
  if (handle == nullptr) return 0;
  const int ret = pm_client_connect(handle);
  if (ret != 0) PELMAR_LOG_ERROR_AS(function, "%s connect failed %d", g_connection.name, ret);
  return ret;
}

void release_vote(const char* function) {
  void* const handle = load(g_connection.handle);
  if (handle == nullptr) return;
  const int ret = pm_client_disconnect(handle);
  if (ret != 0) PELMAR_LOG_ERROR_AS(function, "%s disconnect failed %d", g_connection.name, ret);
}

void log_event(const char* function, const char* name, int32_t event) {
  switch (event) {
    case EVENT_PERIPH_GOING_OFFLINE:
      PELMAR_LOG_DEBUG_AS(function, "%s is going off-line\n", name);
      return;
    case EVENT_PERIPH_IS_OFFLINE:
      PELMAR_LOG_DEBUG_AS(function, "%s is off-line\n", name);
      return;
    case EVENT_PERIPH_GOING_ONLINE:
      PELMAR_LOG_DEBUG_AS(function, "%s going on-line\n", name);
      return;
    case EVENT_PERIPH_IS_ONLINE:
      PELMAR_LOG_DEBUG_AS(function, "%s is on-line\n", name);
      return;
    default:
      PELMAR_LOG_DEBUG_AS(function, "%s: invalid event\n", name);
  }
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

int32_t modem_api_peripheral_mng_init(const char* device_name) {
  PELMAR_RETURN_LOGGED(register_voter(__func__, device_name));
}

int32_t modem_api_peripheral_mng_vote() {
  PELMAR_RETURN_LOGGED(vote(__func__));
}

void modem_api_peripheral_mng_release_vote() {
  PELMAR_LOG_ENTRY();
  release_vote(__func__);
  PELMAR_LOG_EXIT();
}

void modem_api_peripheral_mng_deinit() {
  PELMAR_LOG_ENTRY();
  void* const handle = load(g_connection.handle);
  if (handle != nullptr) pm_client_unregister(handle);
  PELMAR_LOG_EXIT();
}

void modem_api_pm_event_notifier(void* client_data, int32_t event) {
  PELMAR_LOG_ENTRY();
  const auto& connection = *static_cast<const modem_api_peripheral_mng_connection*>(client_data);
  pm_client_event_acknowledge(load(connection.handle), static_cast<pm_event>(event));
  log_event(__func__, connection.name, event);
  PELMAR_LOG_EXIT();
}
