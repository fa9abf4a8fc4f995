/* The library's two connections to the modem's NAS service, one for each subscription.
 *
 * Each is bound to its subscription after every connection attempt and registered for indications when it is connected,
 * also when it reconnects after a restart of the service (see sar_client.h). The two share nothing.
 */
#ifndef NAS_CLIENT_H
#define NAS_CLIENT_H

#include "sar_client.h"

#ifdef __cplusplus
extern "C" {
#endif

PELMAR_DECLARE_RECONNECTING_CLIENT(nas_0);
PELMAR_DECLARE_RECONNECTING_CLIENT(nas_1);

/* Registers the connection for NAS indications. Returns the transport code of the request. */
PELMAR_EXPORT int32_t nas_0_client_set_networking_indications(void);
PELMAR_EXPORT int32_t nas_1_client_set_networking_indications(void);

#ifdef __cplusplus
}
#endif

#endif
