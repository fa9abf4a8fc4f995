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

// A request or response structure with every byte zero, padding included. It cannot be copied, because a copy may have
// other bytes in its padding.
template <typename Structure>
struct Zeroed : Structure {
  Zeroed() { std::memset(static_cast<Structure*>(this), 0, sizeof(Structure)); }
  Zeroed(const Zeroed&) = delete;
  Zeroed& operator=(const Zeroed&) = delete;
};

// A running command of the client API: an operation that may refuse its caller, and that logs its outcome.
class Command : public Operation {
 public:
  using Operation::Operation;

  // Log why the command ends with an error, and exit: for a wrong client, length or count, or for a null pointer.
  modem_api_result refuse(modem_api_result error, int line = __builtin_LINE());
  modem_api_result refuse_null(modem_api_result error, int line = __builtin_LINE());

  // Logs the result of the exchange and returns it.
  modem_api_result log_result(modem_api_result result, int line = __builtin_LINE()) const;
};

using SendSync = int32_t (*)(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                             uint32_t response_length);

// The connection of a command: its client type, and its send function.
struct ServiceSender {
  modem_api_client_type type;
  SendSync send;
};

// The NAS connection of a subscription: 0, or any other number for 1.
inline ServiceSender nas_client_of(int32_t sub) {
  return sub == 0 ? ServiceSender{MODEM_API_CLIENT_NAS_0, nas_0_client_send_msg_sync}
                  : ServiceSender{MODEM_API_CLIENT_NAS_1, nas_1_client_send_msg_sync};
}

// One exchange with the vendor-specific service. Returns its result.
template <typename Request, typename Response>
modem_api_result exchange_vs(vs::MessageId msg_id, Request& request, Response& response) {
  const int32_t code = vs_client_send_msg_sync(msg_id, &request, sizeof(request), &response, sizeof(response));
  return modem_api_map_qmi_error_to_modem_api(code, &response.header);
}

// The same for a message whose response has only a result.
template <typename Request>
modem_api_result exchange_vs(vs::MessageId msg_id, Request& request) {
  Zeroed<vs::PlainResponse> response;
  return exchange_vs(msg_id, request, response);
}

}  // namespace pelmar
