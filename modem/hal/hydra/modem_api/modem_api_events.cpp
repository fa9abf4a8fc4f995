// Event subscriptions of vendor-specific clients, and the requests that switch the modem's reports on.
//
// A subscription has no effect at the modem until modem_api_set_vs_event_report() sends it. Every event that the modem
// reports is delivered, with or without a subscription.
#include <mutex>

#include "modem_api_command.h"
#include "nas_client.h"
#include "nas_requests.h"
#include "network_access_service_v01.h"

namespace pelmar {
namespace {

constexpr int32_t kFirstSubscribable = MODEM_API_EVENT_VS_REPORT_A;
constexpr int32_t kLastSubscribable = MODEM_API_EVENT_VS_REPORT_C;

// Sets the flag of a subscribable event to `subscribed` under the table lock and returns its old value in `before`.
modem_api_result exchange_flag(const log::Place& here, int32_t client_id, int32_t event, bool subscribed,
                               bool& before) {
  if (client_id < 0) return MODEM_API_ERR_INVALID_CLIENT;
  const std::lock_guard lock(g_client_table.lock);
  if (event < kFirstSubscribable || event > kLastSubscribable) {
    PELMAR_LOG_ERROR_AT(here, "modem event %d not supported", event);
    return MODEM_API_ERR_NOT_SUPPORTED;
  }
  ClientSlot* const slot = g_client_table.slot_of(client_id);
  modem_api_client* const client = slot != nullptr ? slot->get() : nullptr;
  if (client == nullptr || client->type != MODEM_API_CLIENT_VS || client->event_cb == nullptr) {
    PELMAR_LOG_ERROR_AT(here, "client not initialized");
    return MODEM_API_ERR_NOT_INITIALIZED;
  }
  before = client->event_flags[event].exchange(subscribed ? 1 : 0) != 0;
  return MODEM_API_SUCCESS;
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

}  // namespace
}  // namespace pelmar

using namespace pelmar;

// Compatibility: a repeated add succeeds, while a repeated remove fails with MODEM_API_ERR_NO_EFFECT.
modem_api_result modem_api_add_modem_event(int32_t client_id, int32_t event) {
  Operation operation(PELMAR_HERE);
  bool was_subscribed = false;
  const modem_api_result result = exchange_flag(operation.here(), client_id, event, true, was_subscribed);
  if (was_subscribed) PELMAR_LOG_ERROR("event already added");
  return operation.exit(result);
}

// Compatibility: this function alone writes no entry and no exit line.
modem_api_result modem_api_remove_modem_event(int32_t client_id, int32_t event) {
  bool was_subscribed = false;
  const modem_api_result result = exchange_flag(PELMAR_HERE, client_id, event, false, was_subscribed);
  if (result != MODEM_API_SUCCESS || was_subscribed) return result;
  PELMAR_LOG_ERROR("event already removed");
  return MODEM_API_ERR_NO_EFFECT;
}

modem_api_result modem_api_set_vs_event_report(int32_t client_id) {
  Command command(PELMAR_HERE);
  ClientSlot* const slot = g_client_table.slot_of(client_id);
  if (slot == nullptr) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  vs::SetEventReportRequest request = {};
  bool is_up = false;
  {
    const PinnedClient client(*slot);
    is_up = client && client->type == MODEM_API_CLIENT_VS && client->status.load() == OPERATIONAL_STATUS_UP;
    if (is_up) request = report_request(*client);
  }
  if (!is_up) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  return command.exit(exchange_vs(vs::kSetEventReport, request));
}

modem_api_result modem_api_util_enable_networking_indications(int32_t client_id, int32_t sub) {
  Command command(PELMAR_HERE);
  const ServiceSender client = nas_client_of(sub);
  if (!is_ready(client_id, client.type)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  nas::RegisterIndicationsRequest request = nas::serving_system_registration();
  Zeroed<nas::PlainResponse> response;
  const int32_t code =
      client.send(QMI_NAS_REGISTER_INDICATIONS_V01, &request, sizeof(request), &response, sizeof(response));
  const modem_api_result result = modem_api_map_qmi_error_to_modem_api(code, &response.header);
  PELMAR_LOG_DEBUG("enable_indication result: %d", result);
  return command.exit(result);
}
