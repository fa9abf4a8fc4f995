/* The binary form of a QMI service description, which the framework's codec reads.
 *
 * A message is a row of bytes: for each TLV a flags byte, the bytes that the flags require, and one element. All
 * offsets are little-endian.
 *
 *   TLV      flags: 0x80 last TLV of the message, 0x40 optional; the low 4 bits are the TLV type of a mandatory TLV. Of
 *            an optional one they are the distance in bytes from the valid flag to the element's data offset, and the
 *            next byte is the TLV type.
 *   element  flags: 0x80 the offset has 16 bits, 0x40 array, 0x20 the array's size (and its count on the wire) has 16
 *            bits, 0x10 variable length, 0x08 one more flags byte follows; the low 3 bits are the kind. Then the offset
 *            in the structure, the array size or maximum, the distance back to the 32-bit count (variable length, not
 *            strings), and for an aggregate two bytes: the low 8 bits of the type index, then
 *            ((index & 0xFF00) >> 4) | table number.
 *   type     the elements of an aggregate, ended by QMI_IDL_TYPE_END.
 */
#ifndef QMI_IDL_LIB_INTERNAL_H
#define QMI_IDL_LIB_INTERNAL_H

#include <stdint.h>

#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  QMI_IDL_TLV_LAST = 0x80,
  QMI_IDL_TLV_OPTIONAL = 0x40,
  QMI_IDL_TLV_LOW_BITS = 0x0F,

  QMI_IDL_OFFSET_16 = 0x80,
  QMI_IDL_ARRAY = 0x40,
  QMI_IDL_SIZE_16 = 0x20,
  QMI_IDL_VARIABLE_LENGTH = 0x10,
  QMI_IDL_MORE_FLAGS = 0x08,
  QMI_IDL_KIND_BITS = 0x07,

  QMI_IDL_KIND_1_BYTE = 0,
  QMI_IDL_KIND_2_BYTES = 1,
  QMI_IDL_KIND_4_BYTES = 2,
  QMI_IDL_KIND_8_BYTES = 3,
  QMI_IDL_KIND_ENUM_1_BYTE = 4,  /* 1 byte on the wire, 32 bits in the structure */
  QMI_IDL_KIND_ENUM_2_BYTES = 5, /* 2 bytes on the wire, 32 bits in the structure */
  QMI_IDL_KIND_STRING = 6,
  QMI_IDL_KIND_AGGREGATE = 7,

  QMI_IDL_TYPE_END = 0x20,
};

/* message_table_message_id: the table in bits 12 to 15, the index of the message in that table in bits 0 to 11. */
#define QMI_IDL_TABLE_OF(message_table_message_id) ((message_table_message_id) >> 12)
#define QMI_IDL_INDEX_OF(message_table_message_id) ((message_table_message_id)&0x0FFF)

typedef struct {
  uint32_t c_struct_sz;
  const uint8_t* p_encoded_type_data;
} qmi_idl_type_table_entry;

typedef struct {
  uint32_t c_struct_sz;
  const uint8_t* p_encoded_tlv_data; /* null: a message without TLVs */
} qmi_idl_message_table_entry;

typedef struct {
  uint16_t qmi_message_id;
  uint16_t message_table_message_id;
  uint16_t max_msg_len; /* bytes of TLVs */
} qmi_idl_service_message_table_entry;

typedef struct {
  uint8_t reserved;
} qmi_idl_range_table_entry; /* never present: the pointer to it is null */

typedef struct qmi_idl_type_table_object qmi_idl_type_table_object;

struct qmi_idl_type_table_object {
  uint16_t n_types;
  uint16_t n_messages;
  uint8_t n_referenced_tables; /* besides the service's own */
  const qmi_idl_type_table_entry* p_types;
  const qmi_idl_message_table_entry* p_messages;
  const qmi_idl_type_table_object* const* p_referenced_tables; /* entry 0: the service's own table */
  const qmi_idl_range_table_entry* p_ranges;
};

struct qmi_idl_service_object {
  uint32_t library_version;
  uint32_t idl_version; /* major */
  uint32_t service_id;
  uint32_t max_msg_len;
  uint16_t n_msgs[3];
  const qmi_idl_service_message_table_entry* msgid_to_msg[3]; /* by qmi_idl_type_of_message_type, sorted by id */
  const qmi_idl_type_table_object* p_type_table;
  uint32_t idl_minor_version;
  qmi_idl_service_object_type parent_service_obj;
};

/* The common table: its type 0 is the standard response, two enumerations of 2 bytes on the wire, result then error. */
extern const qmi_idl_type_table_object common_qmi_idl_type_table_object_v01;

#ifdef __cplusplus
}
#endif

#endif
