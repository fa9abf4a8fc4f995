// What the framework calls a connection back with: responses, and indications. An indication is sized, decoded into a
// traced block, delivered and freed.
//
// This runs on the framework's callback thread of the connection; nothing outlives the call.
#include "hydra_mem.h"
#include "pelmar_log_site.h"
#include "service_client.h"
#include "shared_word.h"
#include "traced_ptr.h"

namespace pelmar {
namespace {

void deliver(const ServiceClient& client, qmi_client_type handle, uint32_t msg_id, const void* decoded,
             modem_api_event_cb event_cb) {
  PELMAR_LOG_DEBUG_AT(client.places.ind_hdlr, "Handling indication msg 0x%x", msg_id);
  const InCallback in_callback(handle);
  const bool known = client.indications.deliver != nullptr && client.indications.deliver(msg_id, decoded, event_cb);
  if (!known) PELMAR_LOG_ERROR_AT(client.places.ind_hdlr, "Unknown indication msg %0x", msg_id);
}

}  // namespace

void handle_response(qmi_client_type handle, uint32_t msg_id, void* response, uint32_t response_length,
                     void* callback_data, int32_t transport_error) {
  const InCallback in_callback(handle);
  modem_api_process_response(msg_id, response, response_length, callback_data, transport_error);
}

void handle_indication(const ServiceClient& client, const log::Place& here, qmi_client_type handle, uint32_t msg_id,
                       const void* buffer, uint32_t length) {
  const IndicationRules& rules = client.indications;
  const modem_api_event_cb event_cb = load(*client.context.event_cb);
  if (event_cb == nullptr) {
    PELMAR_LOG_ERROR_AT(here, "%s", rules.no_event_callback);
    return;
  }

  uint32_t size = 0;
  qmi_idl_get_message_c_struct_len(load(*client.context.service_object), QMI_IDL_INDICATION,
                                   static_cast<uint16_t>(msg_id), &size);
  const bool sized = rules.needs_size ? static_cast<int32_t>(size) > 0 : size != 0;
  if (!sized) {
    if (rules.needs_size) {
      PELMAR_LOG_ERROR_AT(here, "decoded_payload_len(%d) can not <= 0", static_cast<int>(size));
    } else {
      deliver(client, handle, msg_id, nullptr, event_cb);
    }
    return;
  }

  const TracedPtr<void> decoded(hydra_malloc_adv(size, here.function, __LINE__));
  if (decoded == nullptr) {
    PELMAR_LOG_ERROR_AT(here, "%s", rules.no_memory);
    return;
  }
  const qmi_client_type stored = load(*client.context.client_handle);  // null until the attempts have ended
  const int code = qmi_client_message_decode(stored != nullptr ? stored : handle, QMI_IDL_INDICATION, msg_id, buffer,
                                             length, decoded.get(), size);
  if (code != QMI_NO_ERR) {
    PELMAR_LOG_ERROR_AT(here, "Indication decode failed for msg 0x%x with error %d", msg_id, code);
    return;
  }
  deliver(client, handle, msg_id, decoded.get(), event_cb);
}

}  // namespace pelmar
