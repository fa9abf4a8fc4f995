// Reads, writes and deletes NV items, EFS items and files, and RF NV items, with one exchange a call.
//
// Each function addresses its item; read_item(), write_item() and send() do the rest. The checks run in the order
// client, pointers, length. A path is read only after the client check.
#include <algorithm>

#include "modem_api_command.h"

namespace pelmar {
namespace {

using vs::MessageId;

// RF NV calls do not log their result.
constexpr bool logs_result(MessageId msg_id) {
  return msg_id != vs::kReadRfnv && msg_id != vs::kWriteRfnv;
}

template <typename Request>
modem_api_result read_item(Command& command, int32_t client_id, MessageId msg_id, Request& request, uint8_t* data,
                           uint32_t* length) {
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  if (data == nullptr || length == nullptr) return command.refuse_null(MODEM_API_ERR_NO_MEMORY);

  Zeroed<vs::ReadResponse> response;
  const modem_api_result result = exchange_vs(msg_id, request, response);
  if (logs_result(msg_id)) command.log_result(result);
  if (result != MODEM_API_SUCCESS) return command.exit(result);
  if (*length < response.data_len) return command.exit(MODEM_API_ERR_NO_MEMORY);
  // The caller gets the length that the modem states; the bytes beyond a response's capacity are zero.
  const size_t held = std::min<size_t>(response.data_len, sizeof(response.data));
  std::memcpy(data, response.data, held);
  std::memset(data + held, 0, response.data_len - held);
  *length = response.data_len;
  return command.exit(MODEM_API_SUCCESS);
}

template <typename Request>
modem_api_result write_item(Command& command, int32_t client_id, MessageId msg_id, Request& request,
                            const uint8_t* data, uint32_t length) {
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  if (data == nullptr) return command.refuse_null(MODEM_API_ERR_NO_MEMORY);
  if (length > sizeof(request.data)) return command.refuse(MODEM_API_ERR_INVALID_PARAM);

  request.data_len = length;
  std::memcpy(request.data, data, length);
  const modem_api_result result = exchange_vs(msg_id, request);
  if (logs_result(msg_id)) command.log_result(result);
  return command.exit(result);
}

// A request that carries no data: the deletions and the EFS sync.
template <typename Request>
modem_api_result send(Command& command, int32_t client_id, MessageId msg_id, Request& request) {
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  return command.exit(exchange_vs(msg_id, request));
}

// Requests that address an item.
template <typename Request>
struct NvItem : Zeroed<Request> {
  NvItem(uint32_t item_id, uint8_t item_qualifier, uint16_t item_index) {
    this->item = item_id;
    this->qualifier = item_qualifier;
    this->index = item_index;
  }
};

template <typename Request>
struct EfsItem : Zeroed<Request> {
  EfsItem(uint32_t item_id, uint16_t item_qualifier) {
    this->item = item_id;
    this->qualifier = item_qualifier;
  }
};

// A path of more than 100 characters is cut. Callers pass a path; a null one is sent as the empty path.
template <typename Request>
struct EfsPath : Zeroed<Request> {
  EfsPath(const char* text, uint16_t item_qualifier, uint8_t item_index) {
    if (text != nullptr) std::memcpy(this->path, text, strnlen(text, sizeof(this->path) - 1));
    this->qualifier = item_qualifier;
    this->index = item_index;
  }
};

template <typename Request>
struct RfnvItem : Zeroed<Request> {
  explicit RfnvItem(uint32_t item_id) { this->item = item_id; }
};

}  // namespace
}  // namespace pelmar

using namespace pelmar;

modem_api_result modem_api_read_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index, uint8_t* data,
                                   uint32_t* length) {
  Command command(PELMAR_HERE);
  NvItem<vs::NvRequest> request(item, qualifier, index);
  return read_item(command, client_id, vs::kReadNv, request, data, length);
}

modem_api_result modem_api_write_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index,
                                    const uint8_t* data, uint32_t length) {
  Command command(PELMAR_HERE);
  NvItem<vs::WriteNvRequest> request(item, qualifier, index);
  return write_item(command, client_id, vs::kWriteNv, request, data, length);
}

modem_api_result modem_api_delete_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index) {
  Command command(PELMAR_HERE);
  NvItem<vs::NvRequest> request(item, qualifier, index);
  return send(command, client_id, vs::kDeleteNv, request);
}

modem_api_result modem_api_read_efs(int32_t client_id, uint32_t item, uint16_t qualifier, uint8_t* data,
                                    uint32_t* length) {
  Command command(PELMAR_HERE);
  EfsItem<vs::EfsRequest> request(item, qualifier);
  return read_item(command, client_id, vs::kReadEfs, request, data, length);
}

modem_api_result modem_api_write_efs(int32_t client_id, uint32_t item, uint16_t qualifier, const uint8_t* data,
                                     uint32_t length) {
  Command command(PELMAR_HERE);
  EfsItem<vs::WriteEfsRequest> request(item, qualifier);
  return write_item(command, client_id, vs::kWriteEfs, request, data, length);
}

modem_api_result modem_api_delete_efs(int32_t client_id, uint32_t item, uint16_t qualifier) {
  Command command(PELMAR_HERE);
  EfsItem<vs::EfsRequest> request(item, qualifier);
  return send(command, client_id, vs::kDeleteEfs, request);
}

modem_api_result modem_api_read_efs_path(int32_t client_id, const char* path, uint16_t qualifier, uint8_t index,
                                         uint8_t* data, uint32_t* length) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  EfsPath<vs::EfsPathRequest> request(path, qualifier, index);
  return read_item(command, client_id, vs::kReadEfsPath, request, data, length);
}

modem_api_result modem_api_write_efs_path(int32_t client_id, const char* path, uint16_t qualifier, uint8_t index,
                                          const uint8_t* data, uint32_t length) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  EfsPath<vs::WriteEfsPathRequest> request(path, qualifier, index);
  return write_item(command, client_id, vs::kWriteEfsPath, request, data, length);
}

modem_api_result modem_api_delete_efs_path(int32_t client_id, const char* path, uint16_t qualifier, uint8_t index) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  EfsPath<vs::EfsPathRequest> request(path, qualifier, index);
  return send(command, client_id, vs::kDeleteEfsPath, request);
}

modem_api_result modem_api_read_rfnv(int32_t client_id, uint32_t item, uint8_t* data, uint32_t* length) {
  Command command(PELMAR_HERE);
  RfnvItem<vs::RfnvRequest> request(item);
  return read_item(command, client_id, vs::kReadRfnv, request, data, length);
}

modem_api_result modem_api_write_rfnv(int32_t client_id, uint32_t item, const uint8_t* data, uint32_t length) {
  Command command(PELMAR_HERE);
  RfnvItem<vs::WriteRfnvRequest> request(item);
  return write_item(command, client_id, vs::kWriteRfnv, request, data, length);
}

modem_api_result modem_api_delete_rfnv(int32_t client_id, uint32_t item) {
  Command command(PELMAR_HERE);
  RfnvItem<vs::RfnvRequest> request(item);
  return send(command, client_id, vs::kDeleteRfnv, request);
}

modem_api_result modem_api_efs_sync(int32_t client_id, int8_t mode, uint32_t value, uint16_t option) {
  Command command(PELMAR_HERE);
  Zeroed<vs::EfsSyncRequest> request;
  request.mode = mode;
  if (mode == 0) {  // in any other mode both are sent as 0
    request.value = value;
    request.option = option;
  }
  return send(command, client_id, vs::kEfsSync, request);
}
