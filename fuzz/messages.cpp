#include "messages.h"

#include <cstring>

#include "idl_tables.h"
#include "network_access_service_v01.h"
#include "qmi_codec.h"
#include "specific_absorption_rate_v01.h"
#include "vs_tables.h"

namespace pelmar::fuzz {
namespace {

using qmi::Element;
using qmi::MessageDescription;
using qmi::TypeTable;

std::vector<CatalogueMessage> make_catalogue() {
  const qmi_idl_service_object_type services[] = {
      &vs::kService,
      sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS),
      nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS),
  };
  std::vector<CatalogueMessage> messages;
  for (const auto service : services) {
    for (const auto type : {QMI_IDL_REQUEST, QMI_IDL_RESPONSE, QMI_IDL_INDICATION}) {
      for (const auto& entry : std::span(service->msgid_to_msg[type], service->n_msgs[type])) {
        qmi::MessageSize size;
        require(qmi::message_size(service, type, entry.qmi_message_id, &size) == QMI_IDL_LIB_NO_ERR);
        messages.push_back({service, type, entry.qmi_message_id, size.structure_length, size.max_wire_length});
      }
    }
  }
  return messages;
}

void walk_element(const Element& element, uint8_t* structure, StructureVisitor& visitor) {
  uint8_t* const at = structure + element.offset;
  if (element.kind == QMI_IDL_KIND_STRING) {
    if (element.is_variable) visitor.on_text({at, element.maximum + size_t{1}});
    return;
  }
  uint32_t count = element.maximum;
  if (element.is_variable) {
    uint8_t* const count_at = at - element.count_distance;
    visitor.on_count(count_at, element.maximum);
    std::memcpy(&count, count_at, sizeof count);
  }
  if (element.kind != QMI_IDL_KIND_AGGREGATE) return;
  for (uint32_t i = 0; i < count; ++i) {
    for (const uint8_t* description = element.aggregate; *description != QMI_IDL_TYPE_END;) {
      Element member;
      description = qmi::read_element(description, *element.aggregate_table, member);
      walk_element(member, at + size_t{i} * element.aggregate_stride, visitor);
    }
  }
}

}  // namespace

const std::vector<CatalogueMessage>& catalogue() {
  static const std::vector<CatalogueMessage> messages = make_catalogue();
  return messages;
}

int32_t decode(const CatalogueMessage& message, std::span<const uint8_t> wire, Bytes& structure) {
  const Bytes exact(wire.begin(), wire.end());
  structure.assign(message.structure_length, 0xEE);  // what the decoder forgets to write shows
  return qmi::decode(message.service, message.type, message.id, exact.data(), exact.size(), structure.data(),
                     structure.size());
}

int32_t encode(const CatalogueMessage& message, const Bytes& structure, size_t capacity, Bytes& wire) {
  wire = Bytes(capacity);
  uint8_t nowhere;
  size_t length = 0;
  const int32_t error = qmi::encode(message.service, message.type, message.id, structure.data(), structure.size(),
                                    capacity > 0 ? wire.data() : &nowhere, capacity, &length);
  require(length <= capacity && (error == QMI_IDL_LIB_NO_ERR || length == 0));
  wire.resize(length);
  return error;
}

void walk(const CatalogueMessage& message, Bytes& structure, StructureVisitor& visitor) {
  MessageDescription description;
  require(qmi::find_message(message.service, message.type, message.id, description) == QMI_IDL_LIB_NO_ERR);
  if (description.tlvs == nullptr) return;
  qmi::TlvHead head;
  const uint8_t* at = description.tlvs;
  do {
    Element element;
    at = qmi::read_element(qmi::read_tlv_head(at, head), *description.table, element);
    if (head.is_optional) visitor.on_valid_flag(structure[element.offset - head.flag_distance]);
    walk_element(element, structure.data(), visitor);
  } while (!head.is_last);
}

}  // namespace pelmar::fuzz
