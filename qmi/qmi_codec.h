// The QMI codec: turns decoded message structures into TLVs on the wire and back, by walking a service's tables.
//
// The tables (qmi_idl_lib_internal.h has their form) are trusted; bytes from the wire are not: no input makes the codec
// read or write outside the buffers it was given. It keeps no state, allocates nothing and may run on any thread.
// "Wire bytes" are the TLVs of one message, without any header. Results are 0 or a QMI_IDL_LIB_* number.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmi_idl_lib.h"

namespace pelmar::qmi {

// Encodes `structure` into `out` and stores the number of bytes written; on an error `out` holds no message and the
// length is 0.
//
// QMI_IDL_LIB_BUFFER_TOO_SMALL: `structure_length` is less than the message's structure, or `capacity` less than the
// encoded message. QMI_IDL_LIB_ARRAY_TOO_BIG: a count or a string is above its maximum.
int32_t encode(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t msg_id,
               const void* structure, size_t structure_length, uint8_t* out, size_t capacity, size_t* out_length);

// Decodes wire bytes into `structure`. Every byte of the message's structure is written: what the message does not have
// is zero. After an error all of them are zero, or unchanged if the error was found before any byte was read.
int32_t decode(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t msg_id,
               const uint8_t* bytes, size_t length, void* structure, size_t structure_length);

// The sizes of a message, from the service's tables.
struct MessageSize {
  uint32_t structure_length;  // bytes of the decoded structure
  uint16_t max_wire_length;   // bytes of TLVs at most
};

// Returns 0, QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND or QMI_IDL_LIB_PARAMETER_ERR.
int32_t message_size(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t msg_id,
                     MessageSize* size);

}  // namespace pelmar::qmi
