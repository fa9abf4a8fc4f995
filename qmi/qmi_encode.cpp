// The encoder: walks a message's description and appends each TLV that the structure holds.
//
// Every function takes where to write and returns where it stopped; a null return stands for an error, which
// is in `output.error` then.
#include <cstring>

#include "idl_tables.h"
#include "qmi_codec.h"
#include "qmi_tlv.h"

namespace pelmar::qmi {
namespace {

struct Output {
  const uint8_t* end;
  int32_t error;

  bool has_room(const uint8_t* at, size_t length) {
    if (static_cast<size_t>(end - at) >= length) return true;
    error = QMI_IDL_LIB_BUFFER_TOO_SMALL;
    return false;
  }

  uint8_t* fail(int32_t number) {
    error = number;
    return nullptr;
  }
};

uint8_t* put_count(const Element& element, uint32_t count, uint8_t* at, Output& output) {
  const size_t width = element.has_wide_count ? 2 : 1;
  if (!output.has_room(at, width)) return nullptr;
  std::memcpy(at, &count, width);
  return at + width;
}

uint8_t* put_string(const Element& element, const uint8_t* text, bool is_whole_tlv, uint8_t* at, Output& output) {
  // A variable string's structure has one byte more than the maximum, for the terminator.
  const size_t length =
      element.is_variable ? strnlen(reinterpret_cast<const char*>(text), element.maximum + size_t{1}) : element.maximum;
  if (length > element.maximum) return output.fail(QMI_IDL_LIB_ARRAY_TOO_BIG);
  if (element.is_variable && !is_whole_tlv) {
    at = put_count(element, static_cast<uint32_t>(length), at, output);
    if (at == nullptr) return nullptr;
  }
  if (!output.has_room(at, length)) return nullptr;
  std::memcpy(at, text, length);
  return at + length;
}

uint8_t* put_enumerations(const Element& element, const uint8_t* from, uint32_t count, uint8_t* at, Output& output) {
  const size_t width = kWireWidth[element.kind];
  if (!output.has_room(at, count * width)) return nullptr;
  for (uint32_t i = 0; i < count; ++i) std::memcpy(at + i * width, from + i * sizeof(uint32_t), width);
  return at + count * width;
}

uint8_t* put_element(const Element& element, const uint8_t* structure, bool is_whole_tlv, uint8_t* at, Output& output);

uint8_t* put_aggregates(const Element& element, const uint8_t* from, uint32_t count, uint8_t* at, Output& output) {
  for (uint32_t i = 0; i < count; ++i, from += element.aggregate_stride) {
    for (const uint8_t* description = element.aggregate; *description != QMI_IDL_TYPE_END;) {
      Element member;
      description = read_element(description, *element.aggregate_table, member);
      at = put_element(member, from, false, at, output);
      if (at == nullptr) return nullptr;
    }
  }
  return at;
}

uint8_t* put_element(const Element& element, const uint8_t* structure, bool is_whole_tlv, uint8_t* at, Output& output) {
  const uint8_t* const from = structure + element.offset;
  if (element.kind == QMI_IDL_KIND_STRING) return put_string(element, from, is_whole_tlv, at, output);

  uint32_t count = element.maximum;
  if (element.is_variable) {
    std::memcpy(&count, from - element.count_distance, sizeof count);
    if (count > element.maximum) return output.fail(QMI_IDL_LIB_ARRAY_TOO_BIG);
    at = put_count(element, count, at, output);
    if (at == nullptr) return nullptr;
  }
  if (element.kind == QMI_IDL_KIND_AGGREGATE) return put_aggregates(element, from, count, at, output);
  if (is_enumeration(element.kind)) return put_enumerations(element, from, count, at, output);

  const size_t length = size_t{count} * kWireWidth[element.kind];
  if (!output.has_room(at, length)) return nullptr;
  std::memcpy(at, from, length);
  return at + length;
}

uint8_t* put_tlv(const TlvHead& head, const Element& element, const uint8_t* structure, uint8_t* at, Output& output) {
  if (!output.has_room(at, kTlvHeaderLength)) return nullptr;
  uint8_t* const value = at + kTlvHeaderLength;
  uint8_t* const end = put_element(element, structure, true, value, output);
  if (end == nullptr) return nullptr;
  const auto length = static_cast<size_t>(end - value);
  if (length > UINT16_MAX) return output.fail(QMI_IDL_LIB_BUFFER_TOO_SMALL);
  at[0] = head.type;
  store_u16(at + 1, length);
  return end;
}

}  // namespace

int32_t encode(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t msg_id,
               const void* structure, size_t structure_length, uint8_t* out, size_t capacity, size_t* out_length) {
  if (out_length == nullptr) return QMI_IDL_LIB_PARAMETER_ERR;
  *out_length = 0;
  MessageDescription message;
  const int32_t error = find_message(service, type, msg_id, message);
  if (error != QMI_IDL_LIB_NO_ERR) return error;
  if (structure_length < message.structure_length) return QMI_IDL_LIB_BUFFER_TOO_SMALL;
  if (message.tlvs == nullptr) return QMI_IDL_LIB_NO_ERR;
  if (structure == nullptr || (out == nullptr && capacity != 0)) return QMI_IDL_LIB_PARAMETER_ERR;

  const auto* const from = static_cast<const uint8_t*>(structure);
  Output output{out + capacity, QMI_IDL_LIB_NO_ERR};
  uint8_t* at = out;
  const uint8_t* description = message.tlvs;
  TlvHead head;
  do {
    Element element;
    description = read_element(read_tlv_head(description, head), *message.table, element);
    if (head.is_optional && from[element.offset - head.flag_distance] == 0) continue;
    at = put_tlv(head, element, from, at, output);
    if (at == nullptr) return output.error;
  } while (!head.is_last);
  *out_length = static_cast<size_t>(at - out);
  return QMI_IDL_LIB_NO_ERR;
}

}  // namespace pelmar::qmi
