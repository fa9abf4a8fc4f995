#include "qmi/service.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "qmi_codec.h"

namespace pelmar::sim {

Service::Service(std::string_view name, qmi_idl_service_object_type object, std::span<const MessageRow> rows)
    : name_(name), object_(object), rows_(rows) {
  if (object == nullptr) throw std::logic_error("service " + std::string(name) + " has no tables");
  const auto has_size = [&](qmi_idl_type_of_message_type type, uint16_t message, uint32_t structure_size) {
    qmi::MessageSize size{};
    return qmi::message_size(object, type, message, &size) == QMI_IDL_LIB_NO_ERR &&
           size.structure_length == structure_size;
  };
  for (const MessageRow& row : rows) {
    if (!has_size(QMI_IDL_REQUEST, row.id, row.request_size) ||
        !has_size(QMI_IDL_RESPONSE, row.id, row.response_size)) {
      throw std::logic_error("message " + std::string(row.name) + " differs from the service's tables");
    }
  }
}

const MessageRow* Service::find(uint16_t message) const {
  const auto row = std::lower_bound(rows_.begin(), rows_.end(), message,
                                    [](const MessageRow& left, uint16_t id) { return left.id < id; });
  return row != rows_.end() && row->id == message ? &*row : nullptr;
}

}  // namespace pelmar::sim
