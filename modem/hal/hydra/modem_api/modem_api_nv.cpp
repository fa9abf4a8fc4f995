// NV items, EFS items and files, RF NV items: one exchange a call.
//
// The thirteen calls differ in their request and message only; what they share is read_item(), write_item() and
// delete_item(). Checks run in the order client, pointers, length.
#include "modem_api_command.h"

namespace pelmar {
namespace {

using vs::MessageId;

// RF NV calls do not log their result.
constexpr bool logs_result(MessageId msg_id) {
  return msg_id != vs::kReadRfnv && msg_id != vs::kWriteRfnv;
}

template <typename Request>
modem_api_result read_item(const char* function, int32_t client_id, MessageId msg_id, Request& request, uint8_t* data,
                           uint32_t* length) {
  const modem_api_result check = check_client(function, client_id, MODEM_API_CLIENT_VS);
  if (check != MODEM_API_SUCCESS) return check;
  if (data == nullptr || length == nullptr) return unexpected_null(function, MODEM_API_ERR_NO_MEMORY);

  Zeroed<vs::ReadResponse> response;
  const modem_api_result result = exchange_vs(msg_id, request, response);
  if (logs_result(msg_id)) PELMAR_LOG_DEBUG_AS(function, "result %d", result);
  if (result != MODEM_API_SUCCESS) return result;
  // What the response holds bounds the copy as well: a length beyond it is no item.
  if (*length < response.data_len || response.data_len > sizeof(response.data)) return MODEM_API_ERR_NO_MEMORY;
  std::memcpy(data, response.data, response.data_len);
  *length = response.data_len;
  return MODEM_API_SUCCESS;
}

template <typename Request>
modem_api_result write_item(const char* function, int32_t client_id, MessageId msg_id, Request& request,
                            const uint8_t* data, uint32_t length) {
  const modem_api_result check = check_client(function, client_id, MODEM_API_CLIENT_VS);
  if (check != MODEM_API_SUCCESS) return check;
  if (data == nullptr) return unexpected_null(function, MODEM_API_ERR_NO_MEMORY);
  if (length > sizeof(request.data)) return unexpected_condition(function, MODEM_API_ERR_INVALID_PARAM);

  request.data_len = length;
  std::memcpy(request.data, data, length);
  const modem_api_result result = exchange_vs(msg_id, request);
  if (logs_result(msg_id)) PELMAR_LOG_DEBUG_AS(function, "result %d", result);
  return result;
}

// A request that carries no data: the deletions and the EFS sync.
template <typename Request>
modem_api_result send_plain(const char* function, int32_t client_id, MessageId msg_id, Request& request) {
  const modem_api_result check = check_client(function, client_id, MODEM_API_CLIENT_VS);
  return check != MODEM_API_SUCCESS ? check : exchange_vs(msg_id, request);
}

// --- requests by how the item is addressed ---

template <typename Request>
Zeroed<Request> nv_request(uint32_t item, uint8_t qualifier, uint16_t index) {
  Zeroed<Request> request;
  request.item = item;
  request.qualifier = qualifier;
  request.index = index;
  return request;
}

template <typename Request>
Zeroed<Request> efs_request(uint32_t item, uint16_t qualifier) {
  Zeroed<Request> request;
  request.item = item;
  request.qualifier = qualifier;
  return request;
}

// A path beyond 100 characters is cut. It is never null.
template <typename Request>
Zeroed<Request> efs_path_request(const char* path, uint16_t qualifier, uint8_t index) {
  Zeroed<Request> request;
  std::memcpy(request.path, path, strnlen(path, sizeof(request.path) - 1));
  request.qualifier = qualifier;
  request.index = index;
  return request;
}

template <typename Request>
Zeroed<Request> rfnv_request(uint32_t item) {
  Zeroed<Request> request;
  request.item = item;
  return request;
}

// Value and option count in mode 0 alone.
Zeroed<vs::EfsSyncRequest> efs_sync_request(int8_t mode, uint32_t value, uint16_t option) {
  Zeroed<vs::EfsSyncRequest> request;
  request.mode = mode;
  if (mode == 0) {
    request.value = value;
    request.option = option;
  }
  return request;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

modem_api_result modem_api_read_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index, uint8_t* data,
                                   uint32_t* length) {
  auto request = nv_request<vs::NvRequest>(item, qualifier, index);
  PELMAR_RETURN_LOGGED(read_item(__func__, client_id, vs::kReadNv, request, data, length));
}

modem_api_result modem_api_write_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index,
                                    const uint8_t* data, uint32_t length) {
  auto request = nv_request<vs::WriteNvRequest>(item, qualifier, index);
  PELMAR_RETURN_LOGGED(write_item(__func__, client_id, vs::kWriteNv, request, data, length));
}

modem_api_result modem_api_delete_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index) {
  auto request = nv_request<vs::NvRequest>(item, qualifier, index);
  PELMAR_RETURN_LOGGED(send_plain(__func__, client_id, vs::kDeleteNv, request));
}

modem_api_result modem_api_read_efs(int32_t client_id, uint32_t item, uint16_t qualifier, uint8_t* data,
                                    uint32_t* length) {
  auto request = efs_request<vs::EfsRequest>(item, qualifier);
  PELMAR_RETURN_LOGGED(read_item(__func__, client_id, vs::kReadEfs, request, data, length));
}

modem_api_result modem_api_write_efs(int32_t client_id, uint32_t item, uint16_t qualifier, const uint8_t* data,
                                     uint32_t length) {
  auto request = efs_request<vs::WriteEfsRequest>(item, qualifier);
  PELMAR_RETURN_LOGGED(write_item(__func__, client_id, vs::kWriteEfs, request, data, length));
}

modem_api_result modem_api_delete_efs(int32_t client_id, uint32_t item, uint16_t qualifier) {
  auto request = efs_request<vs::EfsRequest>(item, qualifier);
  PELMAR_RETURN_LOGGED(send_plain(__func__, client_id, vs::kDeleteEfs, request));
}

modem_api_result modem_api_read_efs_path(int32_t client_id, const char* path, uint16_t qualifier, uint8_t index,
                                         uint8_t* data, uint32_t* length) {
  auto request = efs_path_request<vs::EfsPathRequest>(path, qualifier, index);
  PELMAR_RETURN_LOGGED(read_item(__func__, client_id, vs::kReadEfsPath, request, data, length));
}

modem_api_result modem_api_write_efs_path(int32_t client_id, const char* path, uint16_t qualifier, uint8_t index,
                                          const uint8_t* data, uint32_t length) {
  auto request = efs_path_request<vs::WriteEfsPathRequest>(path, qualifier, index);
  PELMAR_RETURN_LOGGED(write_item(__func__, client_id, vs::kWriteEfsPath, request, data, length));
}

modem_api_result modem_api_delete_efs_path(int32_t client_id, const char* path, uint16_t qualifier, uint8_t index) {
  auto request = efs_path_request<vs::EfsPathRequest>(path, qualifier, index);
  PELMAR_RETURN_LOGGED(send_plain(__func__, client_id, vs::kDeleteEfsPath, request));
}

modem_api_result modem_api_read_rfnv(int32_t client_id, uint32_t item, uint8_t* data, uint32_t* length) {
  auto request = rfnv_request<vs::RfnvRequest>(item);
  PELMAR_RETURN_LOGGED(read_item(__func__, client_id, vs::kReadRfnv, request, data, length));
}

modem_api_result modem_api_write_rfnv(int32_t client_id, uint32_t item, const uint8_t* data, uint32_t length) {
  auto request = rfnv_request<vs::WriteRfnvRequest>(item);
  PELMAR_RETURN_LOGGED(write_item(__func__, client_id, vs::kWriteRfnv, request, data, length));
}

modem_api_result modem_api_delete_rfnv(int32_t client_id, uint32_t item) {
  auto request = rfnv_request<vs::RfnvRequest>(item);
  PELMAR_RETURN_LOGGED(send_plain(__func__, client_id, vs::kDeleteRfnv, request));
}

modem_api_result modem_api_efs_sync(int32_t client_id, int8_t mode, uint32_t value, uint16_t option) {
  auto request = efs_sync_request(mode, value, option);
  PELMAR_RETURN_LOGGED(send_plain(__func__, client_id, vs::kEfsSync, request));
}
