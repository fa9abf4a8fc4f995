/* The library's connection to the modem's SAR service, and the operations that every reconnecting connection has.
 *
 * A SAR or NAS connection that loses its service reconnects by itself: it reports OPERATIONAL_STATUS_DOWN, _RELEASED,
 * _RECONNECTING and _UP, or _RECONNECT_FAILED when it could not reconnect. Releasing and reconnecting run on detached
 * threads, so that the framework's callback threads are never blocked. The users are the operations of modem_api.h.
 */
#ifndef SAR_CLIENT_H
#define SAR_CLIENT_H

#include <stdbool.h>
#include <stdint.h>

#include "modem_api.h"
#include "pelmar_export.h"
#include "qmi_client.h"
#include "vs_client.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The context of a SAR or NAS connection; all zero at load and after a release. */
typedef struct reconnecting_client_context {
  qmi_idl_service_object_type service_object;
  qmi_client_type client_handle;
  qmi_client_os_params os_params;
  qmi_client_type notifier_handle; /* only while the service is down */
  qmi_client_recv_msg_async_cb response_cb;
  modem_api_event_cb event_cb;
  modem_api_operational_status_fn status_cb;
  uint8_t connected;
} reconnecting_client_context;

/* Declares the operations of one reconnecting connection.
 *
 *   _init                                    clears the context and fetches the service object
 *   _client_init                             connects: up to ten attempts one second apart; true on success
 *   _client_init_client_handles              the attempts alone
 *   _client_release                          releases the connection and clears the context; true always
 *   _client_set_operational_status_callback  called at every change of state
 *   _client_send_msg_sync, _async            as vs_client_send_msg_sync(), vs_client_send_msg_async()
 *   _client_command_cb, _client_unsol_ind_cb, _client_service_down_event, _client_service_up_event
 *                                            the framework's callbacks
 *   _client_release_qmi_client_thread, _client_resume_qmi_client_thread
 *                                            what runs on detached threads after a service went down, came back; the
 *                                            argument is null or the library's own; null is returned
 */
#define PELMAR_DECLARE_RECONNECTING_CLIENT(prefix)                                                                     \
  extern PELMAR_EXPORT reconnecting_client_context prefix##_client_info;                                               \
  PELMAR_EXPORT void prefix##_init(void);                                                                              \
  PELMAR_EXPORT bool prefix##_client_init(modem_api_event_cb event_cb);                                                \
  PELMAR_EXPORT bool prefix##_client_init_client_handles(void);                                                        \
  PELMAR_EXPORT bool prefix##_client_release(void);                                                                    \
  PELMAR_EXPORT void prefix##_client_set_operational_status_callback(modem_api_operational_status_fn callback);        \
  PELMAR_EXPORT int32_t prefix##_client_send_msg_sync(uint32_t msg_id, void* request, uint32_t request_length,         \
                                                      void* response, uint32_t response_length);                       \
  PELMAR_EXPORT int32_t prefix##_client_send_msg_async(uint32_t msg_id, void* request, uint32_t request_length,        \
                                                       void* response, uint32_t response_length, void* callback_data); \
  PELMAR_EXPORT void prefix##_client_command_cb(qmi_client_type handle, unsigned int msg_id, void* response,           \
                                                unsigned int response_length, void* callback_data,                     \
                                                qmi_client_error_type transport_error);                                \
  PELMAR_EXPORT void prefix##_client_unsol_ind_cb(qmi_client_type handle, unsigned int msg_id, void* buffer,           \
                                                  unsigned int length, void* callback_data);                           \
  PELMAR_EXPORT void prefix##_client_service_down_event(qmi_client_type handle, qmi_client_error_type error,           \
                                                        void* callback_data);                                          \
  PELMAR_EXPORT void prefix##_client_service_up_event(qmi_client_type handle,                                          \
                                                      qmi_idl_service_object_type service_object,                      \
                                                      qmi_client_notify_event_type event, void* callback_data);        \
  PELMAR_EXPORT void* prefix##_client_release_qmi_client_thread(void* argument);                                       \
  PELMAR_EXPORT void* prefix##_client_resume_qmi_client_thread(void* argument)

PELMAR_DECLARE_RECONNECTING_CLIENT(sar);

#ifdef __cplusplus
}
#endif

#endif
