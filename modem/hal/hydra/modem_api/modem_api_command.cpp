// Result codes, and the synchronous and the asynchronous pass-through command.
#include "modem_api_command.h"

#include <algorithm>
#include <new>

namespace pelmar {
namespace {

struct ErrorMapping {
  uint32_t error;
  modem_api_result result;
};

// The results of QMI errors; all other errors are MODEM_API_ERR_GENERIC.
constexpr ErrorMapping kErrorMappings[] = {
    {QMI_ERR_NONE_V01, MODEM_API_SUCCESS},
    {QMI_ERR_ABORTED_V01, MODEM_API_ERR_ABORTED},
    {QMI_ERR_MISSING_ARG_V01, MODEM_API_ERR_INVALID_PARAM},
    {QMI_ERR_ARG_TOO_LONG_V01, MODEM_API_ERR_INVALID_PARAM},
    {QMI_ERR_OP_NETWORK_UNSUPPORTED_V01, MODEM_API_ERR_NOT_SUPPORTED},
    {QMI_ERR_NO_EFFECT_V01, MODEM_API_SUCCESS},
    {QMI_ERR_REQUESTED_NUM_UNSUPPORTED_V01, MODEM_API_ERR_NOT_SUPPORTED},
    {QMI_ERR_INVALID_ARG_V01, MODEM_API_ERR_INVALID_PARAM},
    {QMI_ERR_INVALID_INDEX_V01, MODEM_API_ERR_INVALID_PARAM},
    {QMI_ERR_DEVICE_NOT_READY_V01, MODEM_API_ERR_NOT_READY},
    {QMI_ERR_BUNDLING_NOT_SUPPORTED_V01, MODEM_API_ERR_NOT_SUPPORTED},
    {QMI_ERR_NOT_SUPPORTED_V01, MODEM_API_ERR_NOT_SUPPORTED},
};

modem_api_result map_response(const vs::ResponseHeader& response) {
  if (response.result == QMI_RESULT_SUCCESS_V01) return MODEM_API_SUCCESS;
  if (response.result != QMI_RESULT_FAILURE_V01) return MODEM_API_ERR_GENERIC;
  const ErrorMapping* const row =
      std::find_if(std::begin(kErrorMappings), std::end(kErrorMappings),
                   [&](const ErrorMapping& entry) { return entry.error == response.error; });
  return row != std::end(kErrorMappings) ? row->result : MODEM_API_ERR_GENERIC;
}

modem_api_result map_outcome(int32_t transport_code, const vs::ResponseHeader* response) {
  switch (transport_code) {
    case QMI_NO_ERR:
    case QMI_SERVICE_ERR:  // Compatibility: the response decides, and one that the platform left zeroed is a success.
      return map_response(*response);
    case QMI_TIMEOUT_ERR:
      return MODEM_API_ERR_TIMEOUT;
    case QMI_INTERNAL_ERR:
    case QMI_PORT_NOT_OPEN_ERR:
      return MODEM_API_ERR_TRANSPORT;
    default:
      return MODEM_API_ERR_GENERIC;
  }
}

// A negative length is not checked here: the codec refuses it.
void fill(vs::PassThroughRequest& request, const uint8_t* payload, int32_t length) {
  request.payload_len = static_cast<uint32_t>(length);
  if (length > 0) std::memcpy(request.payload, payload, static_cast<size_t>(length));
}

// The receiver of an asynchronous response.
struct CallbackRecord {
  modem_api_response_cb callback;
  void* user_data;
};
static_assert(sizeof(void*) != 8 || sizeof(CallbackRecord) == 16);

void deliver_result(const CallbackRecord& record, uint32_t result) {
  record.callback(nullptr, 0, record.user_data, result);
}

// Passes the response's data to the callback in a new block, which the client frees. The block has the length that the
// modem states; the bytes beyond a response's capacity are zero.
void deliver_data(const vs::PassThroughResponse& response, const CallbackRecord& record) {
  const uint32_t length = response.data_len;
  auto* const block = static_cast<uint8_t*>(hydra_malloc_adv(length, "modem_api_common_command_cb_handler", __LINE__));
  if (block == nullptr) return deliver_result(record, MODEM_API_ERR_NO_MEMORY);
  std::memcpy(block, response.data, std::min<size_t>(length, sizeof(response.data)));
  record.callback(block, length, record.user_data, MODEM_API_SUCCESS);
}

void deliver_response(uint32_t msg_id, const void* response, uint32_t response_length, const CallbackRecord& record,
                      int32_t transport_code) {
  if (response == nullptr || response_length == 0) return deliver_result(record, MODEM_API_ERR_NO_MEMORY);
  const modem_api_result result =
      modem_api_map_qmi_error_to_modem_api(transport_code, static_cast<const vs::ResponseHeader*>(response));
  if (result != MODEM_API_SUCCESS) return deliver_result(record, static_cast<uint32_t>(result));
  if (msg_id == vs::kPassThrough) deliver_data(*static_cast<const vs::PassThroughResponse*>(response), record);
  deliver_result(record, MODEM_API_RESP_END);
}

}  // namespace

modem_api_result Command::refuse(modem_api_result error, int line) {
  PELMAR_LOG_ERROR_AT(here_at(line), "Unexpected condition, return error %d!", error);
  return exit(error, line);
}

modem_api_result Command::refuse_null(modem_api_result error, int line) {
  PELMAR_LOG_ERROR_AT(here_at(line), "Unexpected NULL pointer, return error %d!", error);
  return exit(error, line);
}

modem_api_result Command::log_result(modem_api_result result, int line) const {
  PELMAR_LOG_DEBUG_AT(here_at(line), "result %d", result);
  return result;
}

}  // namespace pelmar

using namespace pelmar;

modem_api_result modem_api_map_qmi_error_to_modem_api(int32_t transport_code, const qmi_response_type_v01* response) {
  Operation operation(PELMAR_HERE);
  return operation.exit(map_outcome(transport_code, response));
}

modem_api_result modem_api_common_command(int32_t client_id, const uint8_t* payload, int32_t length) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  if (length > MODEM_API_MAX_PASS_THROUGH_BYTES) return command.refuse(MODEM_API_ERR_INVALID_PARAM);
  if (payload == nullptr && length > 0) return command.refuse_null(MODEM_API_ERR_INVALID_PARAM);
  Zeroed<vs::PassThroughRequest> request;
  fill(request, payload, length);
  Zeroed<vs::PassThroughResponse> response;
  return command.exit(exchange_vs(vs::kPassThrough, request, response));
}

modem_api_result modem_api_common_command_async(int32_t client_id, const uint8_t* payload, int32_t length,
                                                void* user_data, modem_api_response_cb callback) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  if (callback == nullptr) return command.refuse_null(MODEM_API_ERR_INVALID_PARAM);
  if (length > MODEM_API_MAX_PASS_THROUGH_BYTES) return command.refuse(MODEM_API_ERR_INVALID_PARAM);
  if (payload == nullptr && length > 0) return command.refuse_null(MODEM_API_ERR_INVALID_PARAM);
  TracedPtr<void> response(hydra_malloc_adv(sizeof(vs::PassThroughResponse), __func__, __LINE__));
  if (response == nullptr) return command.refuse_null(MODEM_API_ERR_NO_MEMORY);
  Zeroed<vs::PassThroughRequest> request;
  fill(request, payload, length);
  TracedPtr<void> block(hydra_malloc_adv(sizeof(CallbackRecord), __func__, __LINE__));
  if (block == nullptr) {
    response.reset();
    return command.exit(MODEM_API_ERR_NO_MEMORY);
  }
  auto* const record = new (block.release()) CallbackRecord{callback, user_data};

  // Compatibility: both blocks belong to the exchange from here on, and leak if the send is refused. An accepted
  // exchange may have ended already, so we do not read its response.
  auto* const buffer = static_cast<vs::PassThroughResponse*>(response.release());
  const int32_t code = vs_client_send_msg_async(vs::kPassThrough, &request, sizeof(vs::PassThroughRequest), buffer,
                                                sizeof(vs::PassThroughResponse), record);
  const vs::ResponseHeader header = code == QMI_NO_ERR ? vs::ResponseHeader{} : buffer->header;
  return command.exit(modem_api_map_qmi_error_to_modem_api(code, &header));
}

void modem_api_process_response(uint32_t msg_id, void* response, uint32_t response_length, void* callback_record,
                                int32_t transport_code) {
  Operation operation(PELMAR_HERE);
  const TracedPtr<CallbackRecord> record(static_cast<CallbackRecord*>(callback_record));
  const TracedPtr<void> owned_response(response);
  if (record == nullptr || record->callback == nullptr) return;
  deliver_response(msg_id, response, response_length, *record, transport_code);
}
