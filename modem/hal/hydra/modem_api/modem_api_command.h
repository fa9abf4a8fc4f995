// What the commands of the client API share: the client check, their refusals, and the exchange with the
// vendor-specific service.
#pragma once

#include <cstdint>
#include <cstring>

#include "modem_api.h"
#include "modem_api_table.h"
#include "nas_client.h"
#include "pelmar_log_site.h"
#include "vs_client.h"
#include "vs_messages.h"

namespace pelmar {

// A request or response structure with every byte zero, padding included. It stays where it was made: a copy, such as
// one that a function returns in registers, may carry other bytes in its padding.
template <typename Structure>
struct Zeroed : Structure {
  Zeroed() { std::memset(static_cast<Structure*>(this), 0, sizeof(Structure)); }
  Zeroed(const Zeroed&) = delete;
  Zeroed& operator=(const Zeroed&) = delete;
};

// Logs under the name of the refusing command and returns `error`.
modem_api_result unexpected_condition(const char* function, modem_api_result error);
modem_api_result unexpected_null(const char* function, modem_api_result error);

// Logs the result of an exchange under the name of its command and returns it.
modem_api_result log_result(const char* function, modem_api_result result);

// MODEM_API_SUCCESS when the id names a ready client of the type.
inline modem_api_result check_client(const char* function, int32_t client_id, modem_api_client_type type) {
  if (is_ready(client_id, type)) return MODEM_API_SUCCESS;
  return unexpected_condition(function, MODEM_API_ERR_INVALID_CLIENT);
}

using SendSync = int32_t (*)(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                             uint32_t response_length);

// The NAS connection of a subscription: 0, or any other number for 1.
struct NasClient {
  modem_api_client_type type;
  SendSync send;
};

inline NasClient nas_client_of(int32_t sub) {
  return sub == 0 ? NasClient{MODEM_API_CLIENT_NAS_0, nas_0_client_send_msg_sync}
                  : NasClient{MODEM_API_CLIENT_NAS_1, nas_1_client_send_msg_sync};
}

// One exchange with the vendor-specific service, mapped to its result.
template <typename Request, typename Response>
modem_api_result exchange_vs(vs::MessageId msg_id, Request& request, Response& response) {
  const int32_t code = vs_client_send_msg_sync(msg_id, &request, sizeof(request), &response, sizeof(response));
  return modem_api_map_qmi_error_to_modem_api(code, &response.header);
}

// The same for messages that answer with their outcome alone.
template <typename Request>
modem_api_result exchange_vs(vs::MessageId msg_id, Request& request) {
  Zeroed<vs::PlainResponse> response;
  return exchange_vs(msg_id, request, response);
}

}  // namespace pelmar
