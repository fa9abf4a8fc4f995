// A service of the modem: its messages, and the state that it keeps for its clients.
//
// A service is a class with a handler and a row for each message. The structures are those of the service object, which
// the constructor checks. Exchange decodes and encodes the bytes and checks the client id.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "common_v01.h"
#include "qmi_idl_lib_internal.h"

namespace pelmar::sim {

// A QMI error number of common_v01.h; 0 is success.
using QmiError = uint16_t;

class Service;

struct MessageRow {
  uint16_t id;
  std::string_view name;
  uint32_t request_size;
  uint32_t response_size;
  QmiError (*handle)(Service& service, uint8_t client, const void* request, void* response);
};

class Service {
 public:
  // rows: sorted by id. Throws std::logic_error where a row's structures are not those of the tables.
  Service(std::string_view name, qmi_idl_service_object_type object, std::span<const MessageRow> rows);
  virtual ~Service() = default;
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  std::string_view name() const { return name_; }
  qmi_idl_service_object_type object() const { return object_; }
  uint8_t id() const { return static_cast<uint8_t>(object_->service_id); }
  uint16_t major_version() const { return static_cast<uint16_t>(object_->idl_version); }
  uint16_t minor_version() const { return static_cast<uint16_t>(object_->idl_minor_version); }
  std::span<const MessageRow> messages() const { return rows_; }

  // Null for a message that the service does not have.
  const MessageRow* find(uint16_t message) const;

  // The client id is void from now on; another client may get it later.
  virtual void client_gone(uint8_t client) { static_cast<void>(client); }

  // The service starts anew, without clients.
  virtual void restarted() {}

 private:
  const std::string_view name_;
  const qmi_idl_service_object_type object_;
  const std::span<const MessageRow> rows_;
};

// Makes the row of a message from the function that handles it. The response's structure comes zeroed; its result is
// filled in from the error that the function returns.
template <auto Function>
struct Handler;

template <typename S, typename Request, typename Response, QmiError (*Function)(S&, uint8_t, const Request&, Response&)>
struct Handler<Function> {
  static constexpr MessageRow row(uint16_t id, std::string_view name) {
    return {id, name, sizeof(Request), sizeof(Response),
            [](Service& service, uint8_t client, const void* request, void* response) {
              return Function(static_cast<S&>(service), client, *static_cast<const Request*>(request),
                              *static_cast<Response*>(response));
            }};
  }
};

}  // namespace pelmar::sim
