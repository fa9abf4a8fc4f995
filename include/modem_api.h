/* The client interface to the cellular modem.
 *
 * A process calls modem_api_init() once, opens one client for each service that it needs with modem_api_init_client(),
 * and names that client in every later call:
 *
 *     int32_t client;
 *     if (modem_api_init() == MODEM_API_SUCCESS &&
 *         modem_api_init_client(MODEM_API_CLIENT_VS, on_event, on_status, &client) == MODEM_API_SUCCESS) {
 *       uint8_t data[MODEM_API_MAX_ITEM_BYTES];
 *       uint32_t length = sizeof(data);
 *       if (modem_api_read_nv(client, 10, 0, 0, data, &length) == MODEM_API_SUCCESS) ...
 *       modem_api_free_client(client);
 *     }
 *     modem_api_release();
 *
 * Only processes named "qcrilNrd", "mtb" or "modem_api_test" are served. The client table is the process's own; at most
 * one client of each type is open in a process.
 *
 * Threads: commands may be called from any thread; each blocks its caller for up to 30 s. Open and free clients from
 * one thread at a time. Callbacks run on threads of the QMI framework; the status callback also on the thread that
 * opens the client and, when a service comes back, on one of the library's. They may call this interface,
 * modem_api_free_client() included, but must not block for long, and must not send a command through the connection
 * whose callback they are: see each callback type below.
 *
 * A modem that goes away: SAR and NAS clients get a service-down notice, reconnect by themselves and get a service-up
 * notice. A vendor-specific client gets no notice and does not reconnect. Its program detects the loss by a SAR or NAS
 * client's service-down notice, or if a reading of statistics that worked before fails: modem_api_get_stats_parameter()
 * then returns MODEM_API_ERR_GENERIC (a modem that hangs: MODEM_API_ERR_TIMEOUT). Most other commands do not show the
 * loss: on the phone they return MODEM_API_SUCCESS with outputs of zero (see modem_api_map_qmi_error_to_modem_api). To
 * recover, free every client of the process, call modem_api_init(), and open them again until that succeeds.
 *
 * Lines of the library go to the system log and to standard output. A program that writes to standard output itself
 * calls pelmar_hal_close_shell_print() (pelmar_log.h) before modem_api_init().
 *
 * Processes: on Linux a child of fork() cannot use its parent's clients, and whatever it does with them, or its exit,
 * does them no harm. Their commands return MODEM_API_ERR_GENERIC there. After modem_api_init() it may open its own.
 *
 * Results: every function returns a modem_api_result. Commands return MODEM_API_ERR_INVALID_CLIENT for an id that names
 * no client of the command's type whose service is up, the codes named at each declaration, and else what the modem's
 * response maps to (modem_api_map_qmi_error_to_modem_api).
 */
#ifndef MODEM_API_H
#define MODEM_API_H

#include <stdint.h>

#include "common_v01.h"
#include "pelmar_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t modem_api_result;

enum {
  MODEM_API_SUCCESS = 0,
  MODEM_API_ERR_GENERIC = 1,       /* a failure that no other code names */
  MODEM_API_RESP_END = 2,          /* never returned: the last call of a successful asynchronous exchange */
  MODEM_API_ERR_NO_MEMORY = 3,     /* also an output that is null or too small */
  MODEM_API_ERR_NOT_SUPPORTED = 4, /* by the library (client type, event) or by the modem */
  MODEM_API_ERR_INVALID_PARAM = 5,
  MODEM_API_ERR_NOT_INITIALIZED = 6, /* the process is not on the white list, or the client has no event callback */
  MODEM_API_ERR_INVALID_CLIENT = 7,
  MODEM_API_ERR_NOT_READY = 8,       /* the device is not ready */
  MODEM_API_ERR_SERVICE_PENDING = 9, /* a client of this type exists and its service is not up */
  MODEM_API_ERR_ABORTED = 10,
  MODEM_API_ERR_TIMEOUT = 11,
  MODEM_API_ERR_TRANSPORT = 12,
  MODEM_API_ERR_NO_EFFECT = 13,
  MODEM_API_ERR_NO_FREE_CLIENT = 14,
  MODEM_API_ERR_ALREADY_INITIALIZED = 15 /* a client of this type exists and its service is up */
};

/* Client types: one for each service connection that a process can have. */
typedef uint32_t modem_api_client_type;

enum {
  MODEM_API_CLIENT_VS = 0,    /* the vendor-specific service */
  MODEM_API_CLIENT_SAR = 1,   /* the SAR service */
  MODEM_API_CLIENT_NAS_0 = 2, /* the NAS service, bound to subscription 0 */
  MODEM_API_CLIENT_NAS_1 = 3, /* the NAS service, bound to subscription 1 */
  MODEM_API_CLIENT_TYPES = 4
};

enum { MODEM_API_MAX_CLIENTS = 10 }; /* slots of the client table; a client id is a slot, 0 to 9 */

/* State of a client's connection to its service. */
typedef uint32_t operational_status;

enum {
  OPERATIONAL_STATUS_IDLE = 0,
  OPERATIONAL_STATUS_CONNECTING = 1,
  OPERATIONAL_STATUS_FAILED = 2,
  OPERATIONAL_STATUS_UP = 3,
  OPERATIONAL_STATUS_DOWN = 4, /* this and what follows: SAR and NAS clients alone */
  OPERATIONAL_STATUS_RELEASED = 5,
  OPERATIONAL_STATUS_RECONNECTING = 6,
  OPERATIONAL_STATUS_RECONNECT_FAILED = 7
};

/* Notices of the status callback. */
enum { MODEM_API_NOTICE_SERVICE_DOWN = 0x10001, MODEM_API_NOTICE_SERVICE_UP = 0x10002 };

/* Modem events. */
typedef uint32_t modem_api_event;

enum {
  MODEM_API_EVENT_VS_STATUS = 2,   /* struct modem_api_vs_status_event; reported without subscription */
  MODEM_API_EVENT_VS_REPORT_A = 3, /* struct modem_api_vs_report_a_event */
  MODEM_API_EVENT_VS_REPORT_B = 4, /* struct modem_api_vs_report_b_event */
  MODEM_API_EVENT_VS_REPORT_C = 5, /* struct modem_api_vs_report_c_event */
  MODEM_API_EVENT_COUNT = 6
};

/* A modem event. `payload` (`length` bytes, laid out as the event's structure) is valid only during the call.
 *
 * Send no command of a vendor-specific client inside it: on the phone the connection takes in no response before the
 * callback returns, so that the command blocks for 30 s and returns MODEM_API_ERR_TIMEOUT. Leave it to another thread.
 * Commands of other clients work. */
typedef void (*modem_api_event_cb)(uint32_t event, const uint8_t* payload, uint32_t length);

/* A service came up or went down: a MODEM_API_NOTICE_* value and the client type (not the client id).
 *
 * Inside a service-down notice commands of clients of that type return MODEM_API_ERR_INVALID_CLIENT; inside a
 * service-up notice they work. */
typedef void (*modem_api_status_cb)(uint32_t notice, uint32_t client_type);

/* The response to an asynchronous command.
 *
 * data       null except in the call with the response's data. The callback owns that block and frees it with
 *            hydra_free_adv()
 * length     of the data, as the modem states it: bytes beyond the 512 that a response can hold are 0
 * user_data  the command's
 * result     a modem_api_result, or MODEM_API_RESP_END in the last call of a successful exchange
 *
 * Send no command of a vendor-specific client inside it: on the phone one that waits for its response blocks for 30 s
 * and returns MODEM_API_ERR_TIMEOUT, and where the callback runs because the service went away, no send returns. Leave
 * it to another thread. Commands of other clients work. */
typedef void (*modem_api_response_cb)(const uint8_t* data, uint32_t length, void* user_data, uint32_t result);

enum {
  MODEM_API_MAX_PASS_THROUGH_BYTES = 512,
  MODEM_API_MAX_ITEM_BYTES = 256,     /* data of an NV item, EFS item or file, RF NV item */
  MODEM_API_MAX_PATH_CHARACTERS = 100 /* a longer EFS path is cut */
};

/* --- payloads of the events --- */

enum {
  MODEM_API_EVENT_DATA_BYTES = 700,
  MODEM_API_EVENT_RECORDS = 10,
  MODEM_API_EVENT_SECONDARY_RECORDS = 5,
  MODEM_API_EVENT_ENTRIES = 100
};

typedef struct modem_api_vs_status_event {
  uint32_t value;
  uint8_t flag1; /* 0 or 1 */
  uint8_t flag2; /* 0 or 1 */
  uint8_t reserved[2];
} modem_api_vs_status_event;

/* One reported statistics value. */
typedef struct modem_api_event_record {
  uint32_t id;                              /* statistics identifier */
  uint8_t data[MODEM_API_EVENT_DATA_BYTES]; /* zero beyond data_len */
  uint32_t data_len;                        /* bytes, 0 to 700 */
  uint16_t sub;
  uint16_t sub_high;
} modem_api_event_record;

typedef struct modem_api_vs_report_a_event {
  uint32_t value;
  modem_api_event_record records[MODEM_API_EVENT_RECORDS]; /* zero beyond record_count */
  uint32_t record_count;                                   /* 0 to 10 */
  modem_api_event_record secondary[MODEM_API_EVENT_SECONDARY_RECORDS];
  uint32_t secondary_count; /* 0 to 5 */
  uint32_t trailer;         /* 0xFFFFFFFF: not reported */
} modem_api_vs_report_a_event;

typedef struct modem_api_vs_report_b_event {
  uint32_t value;
  uint32_t entries[MODEM_API_EVENT_ENTRIES]; /* zero beyond entry_count */
  uint32_t entry_count;                      /* 0 to 100 */
  uint16_t first;
  uint16_t second;
} modem_api_vs_report_b_event;

typedef struct modem_api_vs_report_c_event {
  uint8_t value;
} modem_api_vs_report_c_event;

/* --- lifecycle --- */

/* Sets the library up for this process. Call it before anything else, and before a client type is opened that was open
 * before.
 *
 * Each call also clears the contexts of all four connections, those of open clients included: their commands then
 * return MODEM_API_ERR_GENERIC, and their connections are never released. Before a reopening, therefore, free all
 * clients of the process, then call this, then open them. Like modem_api_free_client(), it waits for callbacks of the
 * library's connections, except inside a callback.
 *
 * Returns MODEM_API_SUCCESS, or MODEM_API_ERR_NOT_INITIALIZED when the process is not on the white list. */
PELMAR_EXPORT modem_api_result modem_api_init(void);

/* Undoes modem_api_init(): clears the client table. It releases no client; free every client first.
 * Returns MODEM_API_SUCCESS. */
PELMAR_EXPORT modem_api_result modem_api_release(void);

/* Opens a client and connects it to its service; blocks for up to about ten seconds while the service is absent, and on
 * Linux for up to about twenty where a modem is there that does not respond. A NAS client also sends commands while it
 * opens, each of which blocks for up to 30 s.
 *
 * type       a MODEM_API_CLIENT_* value
 * event_cb   receives modem events (vendor-specific clients alone); may be null
 * status_cb  receives service-up and service-down notices; may be null. The first service-up comes before *client_id is
 *            written
 * client_id  out: 0 to 9; written on success alone. Never null
 *
 * Returns MODEM_API_SUCCESS, MODEM_API_ERR_NOT_INITIALIZED (white list), MODEM_API_ERR_NO_MEMORY,
 * MODEM_API_ERR_NOT_SUPPORTED (unknown type), MODEM_API_ERR_SERVICE_PENDING or MODEM_API_ERR_ALREADY_INITIALIZED (the
 * process has a client of this type), MODEM_API_ERR_NO_FREE_CLIENT, or MODEM_API_ERR_GENERIC (the service did not
 * respond). */
PELMAR_EXPORT modem_api_result modem_api_init_client(modem_api_client_type type, modem_api_event_cb event_cb,
                                                     modem_api_status_cb status_cb, int32_t* client_id);

/* Releases a client's connection and frees the client. A client of its type can be opened again after another
 * modem_api_init().
 *
 * Returns when no callback of the client runs any more. Inside a callback it does not wait: callbacks of the client
 * that run then may end later, and the connection whose callback it is called from is released on another thread, after
 * that callback. Two callbacks of different clients that free each other's client at once wait for each other; so do a
 * thread that frees a client and a callback of this client that waits for the thread. A free of an id that another
 * thread is freeing already returns at once.
 *
 * Asynchronous commands that are pending: see modem_api_common_command_async().
 *
 * Returns MODEM_API_SUCCESS (also for a slot that is free already), or MODEM_API_ERR_INVALID_CLIENT for an id that is
 * negative or 10 and more. */
PELMAR_EXPORT modem_api_result modem_api_free_client(int32_t client_id);

/* Not for clients: the service connections report their status here. */
PELMAR_EXPORT void modem_api_operational_status_cb(uint32_t client_type, uint32_t status);

/* Whether this process is on the white list: 1 or 0. */
PELMAR_EXPORT int32_t modem_api_check_white_list(void);

/* --- pass-through commands --- */

/* The result of a QMI exchange.
 *
 * transport_code  what the platform's send returned (qmi_client.h)
 * response        the response's header, read for transport codes 0 and -2 alone; never null for these two
 *
 *     result                       transport code
 *     by the response              0 (none), -2 (the service went away)
 *     MODEM_API_ERR_TRANSPORT      -1 (internal), -5 (port not open)
 *     MODEM_API_ERR_TIMEOUT        -3 (time-out)
 *     MODEM_API_ERR_GENERIC        any other
 *
 * By the response: MODEM_API_SUCCESS when its result is 0 (success), MODEM_API_ERR_GENERIC when it is neither 0 nor 1
 * (failure), else
 *
 *     result                       error of the response (common_v01.h)
 *     MODEM_API_SUCCESS            0 (none), 26 (no effect)
 *     MODEM_API_ERR_ABORTED        4 (aborted)
 *     MODEM_API_ERR_INVALID_PARAM  17 (missing argument), 19 (argument too long), 48 (invalid argument), 49 (index)
 *     MODEM_API_ERR_NOT_SUPPORTED  24 (by the network), 42 (number), 77 (bundling), 94 (not supported)
 *     MODEM_API_ERR_NOT_READY      52 (device not ready)
 *     MODEM_API_ERR_GENERIC        any other
 *
 * Two special cases return MODEM_API_SUCCESS: "no effect", and a lost service if the platform leaves the zeroed
 * response unchanged (the Linux one writes a failure into it). */
PELMAR_EXPORT modem_api_result modem_api_map_qmi_error_to_modem_api(int32_t transport_code,
                                                                    const qmi_response_type_v01* response);

/* Sends an opaque payload to the vendor-specific service and waits for its outcome; response data is not returned.
 *
 * payload  `length` bytes; may be null when there are none
 * length   0 to 512
 *
 * Returns MODEM_API_ERR_INVALID_PARAM for a length above 512 and for a null payload with a length above 0. A negative
 * length is refused by the platform's codec, with the result MODEM_API_ERR_GENERIC. */
PELMAR_EXPORT modem_api_result modem_api_common_command(int32_t client_id, const uint8_t* payload, int32_t length);

/* The same without waiting. On success the callback runs twice, with the data (with MODEM_API_ERR_NO_MEMORY and none
 * when there is no memory for them) and then with MODEM_API_RESP_END; on a failure once, with the result.
 *
 * user_data  handed to the callback as it is; valid until the callback's last call
 * callback   may run before this returns
 *
 * Returns the outcome of the send; also MODEM_API_ERR_INVALID_PARAM for a null callback, or MODEM_API_ERR_NO_MEMORY.
 * Where another result than MODEM_API_SUCCESS is returned the callback does not run. When the send is refused, the
 * command's buffers (540 bytes) are lost. After the loss of the service the phone's framework refuses every send, and
 * this returns MODEM_API_SUCCESS all the same; the callback does not run.
 *
 * A command that is pending ends
 *
 *     when                     on the phone                            on Linux
 *     its client is freed      the callback runs once, with            the callback does not run; the buffers are lost
 *                              MODEM_API_ERR_NO_MEMORY
 *     its service goes away    the callback runs once, with            the callback runs once, with
 *                              MODEM_API_ERR_NO_MEMORY                 MODEM_API_ERR_GENERIC
 *
 * The callback of a client that is freed runs on the thread that frees it, inside modem_api_free_client(); when that is
 * called inside another callback of the client, on another thread, and perhaps after it returned. */
PELMAR_EXPORT modem_api_result modem_api_common_command_async(int32_t client_id, const uint8_t* payload, int32_t length,
                                                              void* user_data, modem_api_response_cb callback);

/* Not for clients: the end of an asynchronous exchange. Takes the response and the callback record, both from
 * hydra_malloc_adv(), and frees them. */
PELMAR_EXPORT void modem_api_process_response(uint32_t msg_id, void* response, uint32_t response_length,
                                              void* callback_record, int32_t transport_code);

/* --- events --- */

/* Subscribes a vendor-specific client, whose service need not be up, to event 3, 4 or 5. It has effect with the next
 * modem_api_set_vs_event_report().
 * Returns MODEM_API_SUCCESS (also for an event that is subscribed already), MODEM_API_ERR_INVALID_CLIENT for a negative
 * id, MODEM_API_ERR_NOT_SUPPORTED for another event, or MODEM_API_ERR_NOT_INITIALIZED for any other id that names no
 * client (10 and more included), a client of another type, or one without event callback. */
PELMAR_EXPORT modem_api_result modem_api_add_modem_event(int32_t client_id, int32_t event);

/* The reverse, with the same refusals; MODEM_API_ERR_NO_EFFECT for an event that is not subscribed. */
PELMAR_EXPORT modem_api_result modem_api_remove_modem_event(int32_t client_id, int32_t event);

/* Sends the modem the events that the client subscribed. Events 3 and 4 are one switch there: a subscription of either
 * has both reported, and what is reported is delivered. */
PELMAR_EXPORT modem_api_result modem_api_set_vs_event_report(int32_t client_id);

/* Registers a NAS client for the modem's NAS indications.
 * sub  0: the client is of type MODEM_API_CLIENT_NAS_0; any other: of MODEM_API_CLIENT_NAS_1 */
PELMAR_EXPORT modem_api_result modem_api_util_enable_networking_indications(int32_t client_id, int32_t sub);

/* --- NV items, EFS items and files, RF NV items (vendor-specific clients) ---
 *
 * Items and qualifiers go to the modem unchanged. Reads: `length` is the capacity of `data` in bytes on entry and the
 * item's size, as the modem states it, after a success (bytes beyond the 256 that a response can hold are 0);
 * MODEM_API_ERR_NO_MEMORY for a null pointer or an item that does not fit, with both untouched. Writes: 0 to 256 bytes;
 * MODEM_API_ERR_NO_MEMORY for null data, MODEM_API_ERR_INVALID_PARAM for more. */

PELMAR_EXPORT modem_api_result modem_api_read_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index,
                                                 uint8_t* data, uint32_t* length);
PELMAR_EXPORT modem_api_result modem_api_write_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index,
                                                  const uint8_t* data, uint32_t length);
PELMAR_EXPORT modem_api_result modem_api_delete_nv(int32_t client_id, uint32_t item, uint8_t qualifier, uint16_t index);

/* EFS items addressed by number. */
PELMAR_EXPORT modem_api_result modem_api_read_efs(int32_t client_id, uint32_t item, uint16_t qualifier, uint8_t* data,
                                                  uint32_t* length);
PELMAR_EXPORT modem_api_result modem_api_write_efs(int32_t client_id, uint32_t item, uint16_t qualifier,
                                                   const uint8_t* data, uint32_t length);
PELMAR_EXPORT modem_api_result modem_api_delete_efs(int32_t client_id, uint32_t item, uint16_t qualifier);

/* EFS files addressed by path: never null, cut after 100 characters. */
PELMAR_EXPORT modem_api_result modem_api_read_efs_path(int32_t client_id, const char* path, uint16_t qualifier,
                                                       uint8_t index, uint8_t* data, uint32_t* length);
PELMAR_EXPORT modem_api_result modem_api_write_efs_path(int32_t client_id, const char* path, uint16_t qualifier,
                                                        uint8_t index, const uint8_t* data, uint32_t length);
PELMAR_EXPORT modem_api_result modem_api_delete_efs_path(int32_t client_id, const char* path, uint16_t qualifier,
                                                         uint8_t index);

PELMAR_EXPORT modem_api_result modem_api_read_rfnv(int32_t client_id, uint32_t item, uint8_t* data, uint32_t* length);
PELMAR_EXPORT modem_api_result modem_api_write_rfnv(int32_t client_id, uint32_t item, const uint8_t* data,
                                                    uint32_t length);
PELMAR_EXPORT modem_api_result modem_api_delete_rfnv(int32_t client_id, uint32_t item);

/* Requests that the modem writes its EFS to storage. `mode` is sent unchanged, and so are `value` and `option` when
 * it is 0; else these are sent as 0. The modem defines their meaning. */
PELMAR_EXPORT modem_api_result modem_api_efs_sync(int32_t client_id, int8_t mode, uint32_t value, uint16_t option);

/* --- radio controls --- */

/* Notifies the modem that the phone is about to power off (vendor-specific clients). */
PELMAR_EXPORT modem_api_result modem_api_notify_shutdown(int32_t client_id);

/* Resets the modem (vendor-specific clients). */
PELMAR_EXPORT modem_api_result modem_api_reset_modem(int32_t client_id);

/* Sets the RF state of the SAR service (SAR clients).
 * state  passed to the modem unchanged; the modem defines its meaning */
PELMAR_EXPORT modem_api_result modem_api_set_sar_rf_state(int32_t client_id, uint32_t state);

/* Reads the DRX setting of subscription 0 (MODEM_API_CLIENT_NAS_0).
 *
 * valid  out: 1 when the response has a value
 * drx    out: the value
 *
 * Neither may be null; both are 0 when the response has no value. Returns MODEM_API_SUCCESS whatever the modem
 * responded, and when no response came. */
PELMAR_EXPORT modem_api_result modem_api_get_drx(int32_t client_id, uint8_t* valid, uint32_t* drx);

/* Reads where a subscription is camped. No output may be null; one that the modem does not report is 0.
 *
 * sub                   0: a MODEM_API_CLIENT_NAS_0 client; any other: a MODEM_API_CLIENT_NAS_1 client
 * intra_pci             out, 8: physical cell ids of the LTE cells on the serving frequency
 * inter_earfcn          out, 3: frequencies (EARFCN) of the other LTE frequencies
 * inter_pci             out, 24: their physical cell ids, eight a frequency
 * timing_advance_valid  out: 1 when timing_advance is reported
 * timing_advance        out: LTE timing advance
 * nr_arfcn_valid        out: 1 when nr_arfcn is reported
 * nr_arfcn              out: NR ARFCN
 *
 * Returns MODEM_API_SUCCESS, or MODEM_API_ERR_GENERIC when the modem responded with a failure. Returns
 * MODEM_API_SUCCESS also when no response came in time, or none that could be decoded; everything then reads 0. */
PELMAR_EXPORT modem_api_result modem_api_get_cell_info(int32_t client_id, int32_t sub, uint16_t* intra_pci,
                                                       uint16_t* inter_earfcn, uint16_t* inter_pci,
                                                       uint8_t* timing_advance_valid, uint32_t* timing_advance,
                                                       uint8_t* nr_arfcn_valid, uint32_t* nr_arfcn);

enum { MODEM_API_MAX_LOCKED_CELLS = 60 };

/* Locks LTE to a list of cells; an empty list ends the lock.
 *
 * sub     as in modem_api_get_cell_info()
 * count   0 to 60; never pass more. (A codec that refuses more gives MODEM_API_ERR_GENERIC.)
 * values  `count` physical cell ids; the low 16 bits go out
 * params  `count` frequencies (EARFCN) */
PELMAR_EXPORT modem_api_result modem_api_set_lte_cell_lock(int32_t client_id, uint32_t sub, uint32_t count,
                                                           const uint32_t* values, const uint32_t* params);

/* Switches TRM avoidance (the transmit resource manager).
 *
 * sub    as in modem_api_get_cell_info()
 * value  0: off, 1: on; passed to the modem unchanged */
PELMAR_EXPORT modem_api_result modem_api_set_avoid_trm(int32_t client_id, int32_t sub, uint8_t value);

/* Disables NR, or enables it.
 *
 * sub   as in modem_api_get_cell_info()
 * mode  1 or 2: disabled; the modem defines the difference. Any other goes out as 0: enabled */
PELMAR_EXPORT modem_api_result modem_api_set_nr_disable_mode(int32_t client_id, int32_t sub, int32_t mode);

#ifdef __cplusplus
}

static_assert(sizeof(modem_api_vs_status_event) == 8, "layout of event 2");
static_assert(sizeof(modem_api_event_record) == 712, "layout of an event record");
static_assert(sizeof(modem_api_vs_report_a_event) == 10696, "layout of event 3");
static_assert(sizeof(modem_api_vs_report_b_event) == 412, "layout of event 4");
static_assert(sizeof(modem_api_vs_report_c_event) == 1, "layout of event 5");
#endif

#include "modem_api_stats.h"

#endif
