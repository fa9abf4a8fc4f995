// Reading a service's tables: finding a message, stepping over its TLVs and their elements.
//
// The tables are trusted: they are part of the program, so nothing here checks them against their own lengths.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "qmi_idl_lib_internal.h"

namespace pelmar::qmi {

static_assert(std::endian::native == std::endian::little, "integers are copied between wire and structure as they are");

using TypeTable = qmi_idl_type_table_object;

// One element of a TLV or of an aggregate.
struct Element {
  uint8_t kind;
  bool is_array;
  bool has_wide_count;        // the count on the wire has 2 bytes instead of 1
  bool is_variable;           // as many elements as a count says
  uint16_t maximum;           // of an array: its size, or the most that a count may say
  uint32_t offset;            // in the structure that the element belongs to
  uint32_t count_distance;    // variable, not a string: from `offset` back to the 32-bit count
  const uint8_t* aggregate;   // the aggregate's elements, else null
  uint32_t aggregate_stride;  // bytes from one structure of an array of aggregates to the next
  const TypeTable* aggregate_table;
};

// Bytes on the wire of one integer, enumeration or character, by kind.
inline constexpr uint8_t kWireWidth[] = {1, 2, 4, 8, 1, 2, 1};

inline bool is_enumeration(uint8_t kind) {
  return kind == QMI_IDL_KIND_ENUM_1_BYTE || kind == QMI_IDL_KIND_ENUM_2_BYTES;
}

// Number 0 is the table that contains the reference; the others are the entries of its referenced tables.
inline const TypeTable& referenced_table(const TypeTable& table, unsigned number) {
  return number == 0 ? table : *table.p_referenced_tables[number];
}

// Reads the element at `at` and returns where it ends.
inline const uint8_t* read_element(const uint8_t* at, const TypeTable& table, Element& element) {
  const uint8_t flags = *at++;
  if (flags & QMI_IDL_MORE_FLAGS) ++at;
  element.kind = flags & QMI_IDL_KIND_BITS;
  element.is_array = flags & QMI_IDL_ARRAY;
  element.has_wide_count = flags & QMI_IDL_SIZE_16;
  element.is_variable = flags & QMI_IDL_VARIABLE_LENGTH;
  element.offset = *at++;
  if (flags & QMI_IDL_OFFSET_16) element.offset |= static_cast<uint32_t>(*at++) << 8;
  element.maximum = 1;
  if (element.is_array) {
    element.maximum = *at++;
    if (element.has_wide_count) element.maximum = static_cast<uint16_t>(element.maximum | *at++ << 8);
  }
  element.count_distance = 0;
  if (element.is_variable && element.kind != QMI_IDL_KIND_STRING) element.count_distance = *at++;
  element.aggregate = nullptr;
  if (element.kind == QMI_IDL_KIND_AGGREGATE) {
    const unsigned index = at[0] | (at[1] & 0xF0u) << 4;
    element.aggregate_table = &referenced_table(table, at[1] & 0x0Fu);
    element.aggregate = element.aggregate_table->p_types[index].p_encoded_type_data;
    element.aggregate_stride = element.aggregate_table->p_types[index].c_struct_sz;
    at += 2;
  }
  return at;
}

// The head of one TLV's description; its element follows.
struct TlvHead {
  uint8_t type;
  bool is_last;
  bool is_optional;
  uint8_t flag_distance;  // optional: from the element's offset back to the valid flag
};

inline const uint8_t* read_tlv_head(const uint8_t* at, TlvHead& head) {
  const uint8_t flags = *at++;
  head.is_last = flags & QMI_IDL_TLV_LAST;
  head.is_optional = flags & QMI_IDL_TLV_OPTIONAL;
  head.flag_distance = flags & QMI_IDL_TLV_LOW_BITS;
  head.type = head.is_optional ? *at++ : head.flag_distance;
  return at;
}

// A message as its service describes it.
struct MessageDescription {
  uint32_t structure_length;
  uint16_t max_wire_length;
  const uint8_t* tlvs;  // null: the message has none
  const TypeTable* table;
};

// Returns 0, QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND, or QMI_IDL_LIB_PARAMETER_ERR for a null service or a type that is none.
int32_t find_message(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t msg_id,
                     MessageDescription& message);

}  // namespace pelmar::qmi
