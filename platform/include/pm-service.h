/* The peripheral manager's client: votes that keep a peripheral (the modem) powered.
 *
 * The manager powers a peripheral while at least one voter is connected. It notifies every registered voter of each
 * step: 2 then 3 when it powers up, 0 then 1 when it powers down. It waits for each voter's acknowledgement, up to a
 * time-out, before the next step. If a voter's process ends, its vote is withdrawn. On Linux a child of fork() has none
 * of its parent's voters: every use returns PM_RET_FAILED, and the parent's votes stay. */
#ifndef PM_SERVICE_H
#define PM_SERVICE_H

#ifdef __cplusplus
extern "C" {
#endif

enum pm_event
#ifdef __cplusplus
    : int /* as in C, where it holds any int */
#endif
{
  EVENT_PERIPH_GOING_OFFLINE = 0,
  EVENT_PERIPH_IS_OFFLINE = 1,
  EVENT_PERIPH_GOING_ONLINE = 2,
  EVENT_PERIPH_IS_ONLINE = 3,
};

enum {
  PM_RET_SUCCESS = 0,
  PM_RET_FAILED = -1,
  PM_RET_UNSUPPORTED = -2,
};

typedef void (*pm_client_event_cb)(void* client_data, enum pm_event event);

/* Registers a voter for a device. The callback runs on a thread of the manager's client.
 *
 * state   out: the peripheral's state, as the event that preceded it
 * handle  out: the voter's handle; untouched on an error */
int pm_client_register(pm_client_event_cb cb, void* client_data, const char* device_name, const char* client_name,
                       enum pm_event* state, void** handle);

/* Casts the voter's vote for power. */
int pm_client_connect(void* handle);

/* Withdraws the voter's vote. */
int pm_client_disconnect(void* handle);

/* Ends the registration. The handle is invalid afterwards. */
int pm_client_unregister(void* handle);

/* Acknowledges an event of the callback. */
int pm_client_event_acknowledge(void* handle, enum pm_event event);

#ifdef __cplusplus
}
#endif

#endif
