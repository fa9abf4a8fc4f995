/* The QMI interface description library: the types of services and messages, and the codec's result codes.
 *
 * A service object is opaque here; qmi_idl_lib_internal.h has the binary form of service tables.
 */
#ifndef QMI_IDL_LIB_H
#define QMI_IDL_LIB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct qmi_idl_service_object;
typedef const struct qmi_idl_service_object* qmi_idl_service_object_type;

typedef enum {
  QMI_IDL_REQUEST = 0,
  QMI_IDL_RESPONSE = 1,
  QMI_IDL_INDICATION = 2,
} qmi_idl_type_of_message_type;

/* Result codes of the codec; 0 is success. */
enum {
  QMI_IDL_LIB_NO_ERR = 0,
  QMI_IDL_LIB_EXTENDED_ERR = -40,
  QMI_IDL_LIB_BUFFER_TOO_SMALL = -41,
  QMI_IDL_LIB_ARRAY_TOO_BIG = -42,
  QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND = -43,
  QMI_IDL_LIB_TLV_DUPLICATED = -44,
  QMI_IDL_LIB_LENGTH_INCONSISTENCY = -45,
  QMI_IDL_LIB_MISSING_TLV = -46,
  QMI_IDL_LIB_PARAMETER_ERR = -47,
  QMI_IDL_LIB_UNRECOGNIZED_SVC_VERSION = -48,
  QMI_IDL_LIB_UNKNOWN_MANDATORY_TLV = -49,
  QMI_IDL_LIB_INCOMPATIBLE_SVC_VERSION = -50,
  QMI_IDL_LIB_RANGE_ERR = -51,
};

/* Size in bytes of the C structure of one message.
 *
 * service   the service's object
 * type      request, response or indication
 * msg_id    the message's number in the service
 * length    out: bytes; untouched on an error
 *
 * Returns 0, QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND, or QMI_IDL_LIB_PARAMETER_ERR for a null service or length. */
int32_t qmi_idl_get_message_c_struct_len(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type,
                                         uint16_t msg_id, uint32_t* length);

#ifdef __cplusplus
}
#endif

#endif
