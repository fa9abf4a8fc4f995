#include "idl_tables.h"

#include <algorithm>

#include "qmi_codec.h"

namespace pelmar::qmi {

int32_t find_message(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t msg_id,
                     MessageDescription& message) {
  if (service == nullptr || static_cast<unsigned>(type) > QMI_IDL_INDICATION) return QMI_IDL_LIB_PARAMETER_ERR;
  const auto* const begin = service->msgid_to_msg[type];
  const auto* const end = begin + service->n_msgs[type];
  const auto* const found =
      std::lower_bound(begin, end, msg_id, [](const auto& entry, uint16_t id) { return entry.qmi_message_id < id; });
  if (found == end || found->qmi_message_id != msg_id) return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;

  const TypeTable& table = referenced_table(*service->p_type_table, QMI_IDL_TABLE_OF(found->message_table_message_id));
  const auto& entry = table.p_messages[QMI_IDL_INDEX_OF(found->message_table_message_id)];
  message = {entry.c_struct_sz, found->max_msg_len, entry.p_encoded_tlv_data, &table};
  return QMI_IDL_LIB_NO_ERR;
}

int32_t message_size(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t msg_id,
                     MessageSize* size) {
  if (size == nullptr) return QMI_IDL_LIB_PARAMETER_ERR;
  MessageDescription message;
  const int32_t error = find_message(service, type, msg_id, message);
  if (error == QMI_IDL_LIB_NO_ERR) *size = {message.structure_length, message.max_wire_length};
  return error;
}

}  // namespace pelmar::qmi
