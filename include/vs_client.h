/* The library's connection to the modem's vendor-specific QMI service (0xE4).
 *
 * One connection a process. Its users are the operations of modem_api.h; no other code needs to call it. Opening blocks
 * the caller; callbacks run on the QMI framework's threads.
 *
 * The connection neither reports the loss of its service nor reconnects: the loss is logged, the handle stays, and
 * sends return the framework's transport code (-2). modem_api.h describes how a program detects it and recovers.
 */
#ifndef VS_CLIENT_H
#define VS_CLIENT_H

#include <stdbool.h>
#include <stdint.h>

#include "modem_api.h"
#include "pelmar_export.h"
#include "qmi_client.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Called at every change of a connection's state: client type, OPERATIONAL_STATUS_* value. */
typedef void (*modem_api_operational_status_fn)(uint32_t client_type, uint32_t status);

/* The connection's context; all zero at load and after a release. */
typedef struct vs_client_context {
  qmi_idl_service_object_type service_object; /* null: the service's version did not match, or vs_init() has not run */
  qmi_client_type client_handle;              /* null: not connected */
  qmi_client_os_params os_params;
  qmi_client_recv_msg_async_cb response_cb;
  modem_api_event_cb event_cb; /* null: events are dropped */
  modem_api_operational_status_fn status_cb;
  uint8_t connected; /* 1 while connected */
} vs_client_context;

extern PELMAR_EXPORT vs_client_context vs_client_info;

/* The description of the service, for the framework's codec. */
extern PELMAR_EXPORT const struct qmi_idl_service_object vs_qmi_idl_service_object_v01;

/* Returns that description for version (1, 2, 6), otherwise null. */
PELMAR_EXPORT qmi_idl_service_object_type vs_get_service_object_internal_v01(uint32_t idl_major, int32_t idl_minor,
                                                                             int32_t library_version);

/* Clears the context and prepares it for a connection. Returns the service object. */
PELMAR_EXPORT qmi_idl_service_object_type vs_init(void);

PELMAR_EXPORT void vs_client_set_operational_status_callback(modem_api_operational_status_fn callback);

/* Connects: up to ten attempts one second apart. True on success. After a failure it may be called again; after a
 * release, vs_init() comes first. */
PELMAR_EXPORT bool vs_client_init(modem_api_event_cb event_cb);

/* Releases the connection and clears the context. True always. */
PELMAR_EXPORT bool vs_client_release(void);

/* Sends a request and waits up to 30 s for the response, both in their decoded form. Returns the transport code. */
PELMAR_EXPORT int32_t vs_client_send_msg_sync(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                                              uint32_t response_length);

/* The same without waiting: the response goes to modem_api_process_response() with `callback_data`. Returns the
 * transport code of the send. */
PELMAR_EXPORT int32_t vs_client_send_msg_async(uint32_t msg_id, void* request, uint32_t request_length, void* response,
                                               uint32_t response_length, void* callback_data);

/* The framework's callbacks. */
PELMAR_EXPORT void vs_client_command_cb(qmi_client_type handle, unsigned int msg_id, void* response,
                                        unsigned int response_length, void* callback_data,
                                        qmi_client_error_type transport_error);
PELMAR_EXPORT void vs_client_unsol_ind_cb(qmi_client_type handle, unsigned int msg_id, void* buffer,
                                          unsigned int length, void* callback_data);
PELMAR_EXPORT void vs_client_service_down_event(qmi_client_type handle, qmi_client_error_type error,
                                                void* callback_data);

#ifdef __cplusplus
}
#endif

#endif
