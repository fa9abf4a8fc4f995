// Event subscriptions of vendor-specific clients, and the requests that turn reporting on.
//
// A subscription changes nothing at the modem until modem_api_set_vs_event_report() tells it; what the modem reports is
// delivered whatever the subscriptions say.
#include <mutex>

#include "modem_api_command.h"
#include "nas_client.h"
#include "nas_requests.h"
#include "network_access_service_v01.h"

namespace pelmar {
namespace {

constexpr int32_t kFirstSubscribable = MODEM_API_EVENT_VS_REPORT_A;
constexpr int32_t kLastSubscribable = MODEM_API_EVENT_VS_REPORT_C;

// A repeated add succeeds; a repeated remove reports no effect.
modem_api_result add(const char* function, std::atomic<uint8_t>& flag) {
  if (flag.exchange(1) != 0) PELMAR_LOG_ERROR_AS(function, "event already added");
  return MODEM_API_SUCCESS;
}

modem_api_result remove(const char* function, std::atomic<uint8_t>& flag) {
  if (flag.exchange(0) != 0) return MODEM_API_SUCCESS;
  PELMAR_LOG_ERROR_AS(function, "event already removed");
  return MODEM_API_ERR_NO_EFFECT;
}

// Hands the flag of a subscribable event to `edit`, under the table lock.
modem_api_result edit_subscription(const char* function, int32_t client_id, int32_t event,
                                   modem_api_result (*edit)(const char* function, std::atomic<uint8_t>& flag)) {
  if (client_id < 0) return MODEM_API_ERR_INVALID_CLIENT;
  const std::lock_guard lock(g_client_table.lock);
  if (event < kFirstSubscribable || event > kLastSubscribable) {
    PELMAR_LOG_ERROR_AS(function, "modem event %d not supported", event);
    return MODEM_API_ERR_NOT_SUPPORTED;
  }
  ClientSlot* const slot = g_client_table.slot_of(client_id);
  modem_api_client* const client = slot != nullptr ? slot->get() : nullptr;
  if (client == nullptr || client->type != MODEM_API_CLIENT_VS || client->event_cb == nullptr) {
    PELMAR_LOG_ERROR_AS(function, "client not initialized");
    return MODEM_API_ERR_NOT_INITIALIZED;
  }
  return edit(function, client->event_flags[event]);
}

vs::SetEventReportRequest report_request(const modem_api_client& client) {
  const auto subscribed = [&](modem_api_event event) { return client.event_flags[event].load() != 0; };
  const bool report_ab = subscribed(MODEM_API_EVENT_VS_REPORT_A) || subscribed(MODEM_API_EVENT_VS_REPORT_B);
  const bool report_c = subscribed(MODEM_API_EVENT_VS_REPORT_C);
  return {.report_ab_valid = 1,
          .report_ab = static_cast<uint8_t>(report_ab ? 1 : 0),
          .report_c_valid = 1,
          .report_c = static_cast<uint8_t>(report_c ? 1 : 0)};
}

modem_api_result send_event_report(const char* function, int32_t client_id) {
  vs::SetEventReportRequest request = {};
  {
    ClientSlot* const slot = g_client_table.slot_of(client_id);
    if (slot == nullptr) return unexpected_condition(function, MODEM_API_ERR_INVALID_CLIENT);
    const PinnedClient client(*slot);
    const bool ready = client && client->type == MODEM_API_CLIENT_VS && client->status.load() == OPERATIONAL_STATUS_UP;
    if (!ready) return unexpected_condition(function, MODEM_API_ERR_INVALID_CLIENT);
    request = report_request(*client);
  }
  return exchange_vs(vs::kSetEventReport, request);
}

modem_api_result enable_networking_indications(const char* function, int32_t client_id, int32_t sub) {
  const modem_api_result check = check_client(function, client_id, nas_client_of(sub).type);
  if (check != MODEM_API_SUCCESS) return check;
  nas::RegisterIndicationsRequest request = nas::serving_system_registration();
  Zeroed<vs::PlainResponse> response;
  const int32_t code =
      nas_client_of(sub).send(QMI_NAS_REGISTER_INDICATIONS_V01, &request, sizeof(request), &response, sizeof(response));
  const modem_api_result result = modem_api_map_qmi_error_to_modem_api(code, &response.header);
  PELMAR_LOG_DEBUG_AS(function, "enable_indication result: %d", result);
  return result;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

modem_api_result modem_api_add_modem_event(int32_t client_id, int32_t event) {
  PELMAR_RETURN_LOGGED(edit_subscription(__func__, client_id, event, add));
}

// Writes no entry and exit lines.
modem_api_result modem_api_remove_modem_event(int32_t client_id, int32_t event) {
  return edit_subscription(__func__, client_id, event, remove);
}

modem_api_result modem_api_set_vs_event_report(int32_t client_id) {
  PELMAR_RETURN_LOGGED(send_event_report(__func__, client_id));
}

modem_api_result modem_api_util_enable_networking_indications(int32_t client_id, int32_t sub) {
  PELMAR_RETURN_LOGGED(enable_networking_indications(__func__, client_id, sub));
}
