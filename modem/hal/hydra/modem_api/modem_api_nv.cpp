// NV items, EFS items and files, RF NV items: one exchange a call.
//
// The thirteen calls differ in their request and message only; what they share is read_item(), write_item() and
// send_plain(). Checks run in the order client, pointers, length; a path is looked at after them.
#include <algorithm>

#include "modem_api_command.h"

namespace pelmar {
namespace {

using vs::MessageId;

// RF NV calls do not log their result.
constexpr bool logs_result(MessageId msg_id) {
  return msg_id != vs::kReadRfnv && msg_id != vs::kWriteRfnv;
}

template <typename Request, typename Item>
modem_api_result read_item(const char* function, int32_t client_id, MessageId msg_id, const Item& item, uint8_t* data,
                           uint32_t* length) {
  const modem_api_result check = check_client(function, client_id, MODEM_API_CLIENT_VS);
  if (check != MODEM_API_SUCCESS) return check;
  if (data == nullptr || length == nullptr) return unexpected_null(function, MODEM_API_ERR_NO_MEMORY);

  Zeroed<Request> request;
  item.put_into(request);
  Zeroed<vs::ReadResponse> response;
  const modem_api_result result = exchange_vs(msg_id, request, response);
  if (logs_result(msg_id)) log_result(function, result);
  if (result != MODEM_API_SUCCESS) return result;
  if (*length < response.data_len) return MODEM_API_ERR_NO_MEMORY;
  // The caller gets the length that the modem states; what a response cannot hold reads zero.
  const size_t held = std::min<size_t>(response.data_len, sizeof(response.data));
  std::memcpy(data, response.data, held);
  std::memset(data + held, 0, response.data_len - held);
  *length = response.data_len;
  return MODEM_API_SUCCESS;
}

template <typename Request, typename Item>
modem_api_result write_item(const char* function, int32_t client_id, MessageId msg_id, const Item& item,
                            const uint8_t* data, uint32_t length) {
  const modem_api_result check = check_client(function, client_id, MODEM_API_CLIENT_VS);
  if (check != MODEM_API_SUCCESS) return check;
  if (data == nullptr) return unexpected_null(function, MODEM_API_ERR_NO_MEMORY);
  if (length > sizeof(Request::data)) return unexpected_condition(function, MODEM_API_ERR_INVALID_PARAM);

  Zeroed<Request> request;
  item.put_into(request);
  request.data_len = length;
  std::memcpy(request.data, data, length);
  const modem_api_result result = exchange_vs(msg_id, request);
  if (logs_result(msg_id)) log_result(function, result);
  return result;
}

// A request that carries no data: the deletions and the EFS sync.
template <typename Request, typename Item>
modem_api_result send_plain(const char* function, int32_t client_id, MessageId msg_id, const Item& item) {
  const modem_api_result check = check_client(function, client_id, MODEM_API_CLIENT_VS);
  if (check != MODEM_API_SUCCESS) return check;
  Zeroed<Request> request;
  item.put_into(request);
  return exchange_vs(msg_id, request);
}

// --- how items are addressed ---

struct NvItem {
  uint32_t item;
  uint8_t qualifier;
  uint16_t index;

  template <typename Request>
  void put_into(Request& request) const {
    request.item = item;
    request.qualifier = qualifier;
    request.index = index;
  }
};

struct EfsItem {
  uint32_t item;
  uint16_t qualifier;

  template <typename Request>
  void put_into(Request& request) const {
    request.item = item;
    request.qualifier = qualifier;
  }
};

// A path beyond 100 characters is cut. It is never null.
struct EfsFile {
  const char* path;
  uint16_t qualifier;
  uint8_t index;

  template <typename Request>
  void put_into(Request& request) const {
    std::memcpy(request.path, path, strnlen(path, sizeof(request.path) - 1));
    request.qualifier = qualifier;
    request.index = index;
  }
};

struct RfnvItem {
  uint32_t item;

  template <typename Request>
  void put_into(Request& request) const {
    request.item = item;
  }
};

// Value and option count in mode 0 alone.
struct EfsSync {
  int8_t mode;
  uint32_t value;
  uint16_t option;

  void put_into(vs::EfsSyncRequest& request) const {
    request.mode = mode;
    if (mode != 0) return;
    request.value = value;
    request.option = option;
  }
};

}  // namespace
}  // namespace pelmar

using namespace pelmar;

modem_api_result modem_api_read_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index, uint8_t* data,
                                   uint32_t* length) {
  PELMAR_RETURN_LOGGED(
      read_item<vs::NvRequest>(__func__, client_id, vs::kReadNv, NvItem{item, qualifier, index}, data, length));
}

modem_api_result modem_api_write_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index,
                                    const uint8_t* data, uint32_t length) {
  PELMAR_RETURN_LOGGED(
      write_item<vs::WriteNvRequest>(__func__, client_id, vs::kWriteNv, NvItem{item, qualifier, index}, data, length));
}

modem_api_result modem_api_delete_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index) {
  PELMAR_RETURN_LOGGED(send_plain<vs::NvRequest>(__func__, client_id, vs::kDeleteNv, NvItem{item, qualifier, index}));
}

modem_api_result modem_api_read_efs(int32_t client_id, uint32_t item, uint16_t qualifier, uint8_t* data,
                                    uint32_t* length) {
  PELMAR_RETURN_LOGGED(
      read_item<vs::EfsRequest>(__func__, client_id, vs::kReadEfs, EfsItem{item, qualifier}, data, length));
}

modem_api_result modem_api_write_efs(int32_t client_id, uint32_t item, uint16_t qualifier, const uint8_t* data,
                                     uint32_t length) {
  PELMAR_RETURN_LOGGED(
      write_item<vs::WriteEfsRequest>(__func__, client_id, vs::kWriteEfs, EfsItem{item, qualifier}, data, length));
}

modem_api_result modem_api_delete_efs(int32_t client_id, uint32_t item, uint16_t qualifier) {
  PELMAR_RETURN_LOGGED(send_plain<vs::EfsRequest>(__func__, client_id, vs::kDeleteEfs, EfsItem{item, qualifier}));
}

modem_api_result modem_api_read_efs_path(int32_t client_id, const char* path, uint16_t qualifier, uint8_t index,
                                         uint8_t* data, uint32_t* length) {
  PELMAR_RETURN_LOGGED(read_item<vs::EfsPathRequest>(__func__, client_id, vs::kReadEfsPath,
                                                     EfsFile{path, qualifier, index}, data, length));
}

modem_api_result modem_api_write_efs_path(int32_t client_id, const char* path, uint16_t qualifier, uint8_t index,
                                          const uint8_t* data, uint32_t length) {
  PELMAR_RETURN_LOGGED(write_item<vs::WriteEfsPathRequest>(__func__, client_id, vs::kWriteEfsPath,
                                                           EfsFile{path, qualifier, index}, data, length));
}

modem_api_result modem_api_delete_efs_path(int32_t client_id, const char* path, uint16_t qualifier, uint8_t index) {
  PELMAR_RETURN_LOGGED(
      send_plain<vs::EfsPathRequest>(__func__, client_id, vs::kDeleteEfsPath, EfsFile{path, qualifier, index}));
}

modem_api_result modem_api_read_rfnv(int32_t client_id, uint32_t item, uint8_t* data, uint32_t* length) {
  PELMAR_RETURN_LOGGED(read_item<vs::RfnvRequest>(__func__, client_id, vs::kReadRfnv, RfnvItem{item}, data, length));
}

modem_api_result modem_api_write_rfnv(int32_t client_id, uint32_t item, const uint8_t* data, uint32_t length) {
  PELMAR_RETURN_LOGGED(
      write_item<vs::WriteRfnvRequest>(__func__, client_id, vs::kWriteRfnv, RfnvItem{item}, data, length));
}

modem_api_result modem_api_delete_rfnv(int32_t client_id, uint32_t item) {
  PELMAR_RETURN_LOGGED(send_plain<vs::RfnvRequest>(__func__, client_id, vs::kDeleteRfnv, RfnvItem{item}));
}

modem_api_result modem_api_efs_sync(int32_t client_id, int8_t mode, uint32_t value, uint16_t option) {
  PELMAR_RETURN_LOGGED(send_plain<vs::EfsSyncRequest>(__func__, client_id, vs::kEfsSync, EfsSync{mode, value, option}));
}
