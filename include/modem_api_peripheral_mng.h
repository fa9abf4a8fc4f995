/* Votes that keep the modem powered.
 *
 * A process registers with the platform's peripheral manager as a voter for one peripheral and then votes it on, or
 * takes its vote back, any number of times. The manager powers the peripheral while anybody votes for it.
 *
 *     if (modem_api_peripheral_mng_init("modem") == 0 && modem_api_peripheral_mng_vote() == 0) ...
 *     modem_api_peripheral_mng_release_vote();
 *     modem_api_peripheral_mng_deinit();
 *
 * Threads: no lock is taken. Initialise before any other thread votes. The manager's power events are acknowledged and
 * logged on a thread of the manager; they reach no other callback.
 */
#ifndef MODEM_API_PERIPHERAL_MNG_H
#define MODEM_API_PERIPHERAL_MNG_H

#include <stddef.h>
#include <stdint.h>

#include "pelmar_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The registration of this process. Zero at load. */
typedef struct modem_api_peripheral_mng_connection {
  void* handle;  /* the manager's; null until a registration succeeds, and kept after its end */
  char name[32]; /* the peripheral, terminated */
} modem_api_peripheral_mng_connection;

extern PELMAR_EXPORT modem_api_peripheral_mng_connection modem_api_peripheral_mng_conn_info;

/* Room for the host's description of the external modem. The library neither fills nor reads it. */
typedef struct esoc_info_record {
  uint64_t reserved[21];
} esoc_info_record;

extern PELMAR_EXPORT esoc_info_record esoc_info;

/* Registers this process as a voter.
 *
 * device_name  the peripheral's name at the manager; never null, cut after 31 characters
 *
 * Returns 0, or 1 when the manager refused. An earlier registration's handle then stays as it is. */
PELMAR_EXPORT int32_t modem_api_peripheral_mng_init(const char* device_name);

/* Votes for power. Returns 0 (also without a registration, doing nothing), or the manager's error. */
PELMAR_EXPORT int32_t modem_api_peripheral_mng_vote(void);

/* Takes the vote back; does nothing without a registration. A refusal of the manager is only logged. */
PELMAR_EXPORT void modem_api_peripheral_mng_release_vote(void);

/* Ends the registration. Call nothing but modem_api_peripheral_mng_init() afterwards: the others still pass the ended
 * registration's handle to the manager. */
PELMAR_EXPORT void modem_api_peripheral_mng_deinit(void);

/* Not for clients: the manager's callback.
 *
 * client_data  a modem_api_peripheral_mng_connection
 * event        0 going off-line, 1 off-line, 2 going on-line, 3 on-line */
PELMAR_EXPORT void modem_api_pm_event_notifier(void* client_data, int32_t event);

#ifdef __cplusplus
}

static_assert(offsetof(modem_api_peripheral_mng_connection, name) == sizeof(void*) &&
                  sizeof(modem_api_peripheral_mng_connection) == sizeof(void*) + 32,
              "layout of the registration");
static_assert(sizeof(esoc_info_record) == 168, "size of the external modem's description");
#endif

#endif
