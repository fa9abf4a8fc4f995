/* The QMI client framework: connections to a modem's services.
 *
 * Callbacks run on threads of the framework, never on a sender's. Indications of one handle arrive in order; a slow
 * callback of one handle does not delay another handle. A synchronous send inside a callback is allowed.
 *
 * When a service goes away, every send that waits on the handle returns QMI_SERVICE_ERR, the error callback is called
 * once with that code, and later sends return it. On Linux a service also counts as gone if the modem's bytes cannot be
 * parsed, if a request times out while a message is incomplete for 100 ms or more, and if the modem reports that the
 * handle's client id is void.
 *
 * On Linux a child of fork() has none of its parent's handles: every use returns QMI_CLIENT_INVALID_CLNT and does not
 * affect the parent. The child may open its own handles.
 */
#ifndef QMI_CLIENT_H
#define QMI_CLIENT_H

#include <stdint.h>

#include "qmi_cci_target_ext.h"
#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qmi_client_struct* qmi_client_type;
typedef void* qmi_txn_handle;
typedef unsigned int qmi_service_instance;
typedef int qmi_client_error_type;

#define QMI_CLIENT_INSTANCE_ANY 0xffff

typedef enum {
  QMI_CLIENT_SERVICE_COUNT_INC = 0,
  QMI_CLIENT_SERVICE_COUNT_DEC = 1,
} qmi_client_notify_event_type;

/* Transport codes. The codec's codes (qmi_idl_lib.h) are returned unchanged. */
enum {
  QMI_NO_ERR = 0,
  QMI_INTERNAL_ERR = -1,
  QMI_SERVICE_ERR = -2, /* the service went away */
  QMI_TIMEOUT_ERR = -3,
  QMI_EXTENDED_ERR = -4,
  QMI_PORT_NOT_OPEN_ERR = -5,
  QMI_MEMCOPY_ERROR = -13,
  QMI_INVALID_TXN = -14,
  QMI_CLIENT_ALLOC_FAILURE = -15,
  QMI_CLIENT_TRANSPORT_ERR = -16,
  QMI_CLIENT_PARAM_ERR = -17,
  QMI_CLIENT_INVALID_CLNT = -18,
  QMI_CLIENT_FW_NOT_UP = -19,
  QMI_CLIENT_INVALID_SIG = -20,
  QMI_XPORT_BUSY_ERR = -21,
};

/* An indication: its bytes from the first TLV on, which are valid only during the call. */
typedef void (*qmi_client_ind_cb)(qmi_client_type user_handle, unsigned int msg_id, void* ind_buf,
                                  unsigned int ind_buf_len, void* ind_cb_data);

/* The end of an asynchronous transaction. The structure is the one that was passed to the send. */
typedef void (*qmi_client_recv_msg_async_cb)(qmi_client_type user_handle, unsigned int msg_id, void* resp_c_struct,
                                             unsigned int resp_c_struct_len, void* resp_cb_data,
                                             qmi_client_error_type transp_err);

typedef void (*qmi_client_error_cb)(qmi_client_type user_handle, qmi_client_error_type error, void* err_cb_data);

typedef void (*qmi_client_notify_cb)(qmi_client_type user_handle, qmi_idl_service_object_type service_obj,
                                     qmi_client_notify_event_type service_event, void* notify_cb_data);

/* Connects to a service. Waits up to `timeout` milliseconds for an absent service. On Linux the modem has one more
 * second to respond; the call returns after that time whatever the modem sends.
 *
 * ind_cb   may be null: indications are dropped
 * os_params used by the framework until the handle is released
 * user_handle  out: the handle; null on an error
 *
 * Returns 0, QMI_TIMEOUT_ERR if the service is absent or the modem does not respond, QMI_CLIENT_PARAM_ERR for a null
 * service object or handle pointer, QMI_CLIENT_ALLOC_FAILURE if the modem has no client id left, or another transport
 * code. */
qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service_obj,
                                               qmi_service_instance instance_id, qmi_client_ind_cb ind_cb,
                                               void* ind_cb_data, qmi_client_os_params* os_params, uint32_t timeout,
                                               qmi_client_type* user_handle);

/* Opens a notifier, a handle that reports when a service comes or goes. It cannot send. */
qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service_obj, qmi_client_os_params* os_params,
                                               qmi_client_type* user_handle);

/* If the service already went away, calls the callback during the registration and returns QMI_SERVICE_ERR. */
qmi_client_error_type qmi_client_register_error_cb(qmi_client_type user_handle, qmi_client_error_cb err_cb,
                                                   void* err_cb_data);

/* If the service is there already, calls the callback during the registration with QMI_CLIENT_SERVICE_COUNT_INC. On
 * Linux a service that was lost within 100 ms of a connection counts as absent for some time, 10 ms first and at most a
 * second.
 */
qmi_client_error_type qmi_client_register_notify_cb(qmi_client_type user_handle, qmi_client_notify_cb notify_cb,
                                                    void* notify_cb_data);

/* Sends a request and waits for its response.
 *
 * req_c_struct, resp_c_struct   structures of the message, encoded and decoded by the framework; the response's is
 *                               zeroed before it is decoded
 * resp_c_struct_len             at least the message's structure size, else QMI_IDL_LIB_BUFFER_TOO_SMALL
 * timeout_msecs                 0: no time-out
 *
 * Returns 0 if a response was decoded, whatever its result, a transport code, or a codec code. A null handle
 * returns QMI_CLIENT_INVALID_CLNT. A response that comes after the time-out is dropped. On Linux a send that returns
 * QMI_SERVICE_ERR fills the response's header with a failure, and a send while 2048 transactions of the handle are
 * pending returns QMI_XPORT_BUSY_ERR. */
qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type user_handle, unsigned int msg_id, void* req_c_struct,
                                               unsigned int req_c_struct_len, void* resp_c_struct,
                                               unsigned int resp_c_struct_len, unsigned int timeout_msecs);

/* Sends a request; the callback gets the response. The response structure must stay valid until then.
 *
 * On Linux a handle has at most 1024 such transactions, counted until the callback begins. One more send returns
 * QMI_XPORT_BUSY_ERR, as does a send that the modem does not take within five seconds. */
qmi_client_error_type qmi_client_send_msg_async(qmi_client_type user_handle, unsigned int msg_id, void* req_c_struct,
                                                unsigned int req_c_struct_len, void* resp_c_struct,
                                                unsigned int resp_c_struct_len, qmi_client_recv_msg_async_cb resp_cb,
                                                void* resp_cb_data, qmi_txn_handle* txn_handle);

/* Decodes wire bytes (from the first TLV on) into a structure. Returns 0 or a codec code. */
qmi_client_error_type qmi_client_message_decode(qmi_client_type user_handle, qmi_idl_type_of_message_type req_resp_ind,
                                                unsigned int message_id, const void* p_src, unsigned int src_len,
                                                void* p_dst, unsigned int dst_len);

/* Ends a handle. Returns after the last of its callbacks has returned; inside one of them it does not wait for that
 * one. Transactions without a response get no callback. */
qmi_client_error_type qmi_client_release(qmi_client_type user_handle);

#ifdef __cplusplus
}
#endif

#endif
