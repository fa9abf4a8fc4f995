/* What the platform does when the modem crashes: restart the modem subsystem alone, or dump its memory.
 *
 * The choice is the property "persist.vendor.ssr.restart_level". The level found by the first get, or written by the
 * first set, is saved in "persist.vendor.ssr.type_bak" and is what MODEM_RESTART_LEVEL_ID_DEF restores: call
 * pelmar_get_modem_ssr_type() before the first set, so that it is the level that was there before. All state is in
 * properties. Calls from several threads are not ordered against each other.
 */
#ifndef PELMAR_SSR_H
#define PELMAR_SSR_H

#include <stdint.h>

#include "pelmar_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  MODEM_RESTART_LEVEL_ID_DEF = 0,     /* the saved level */
  MODEM_RESTART_LEVEL_ID_SSR = 1,     /* "ALL_ENABLE": restart the modem subsystem alone */
  MODEM_RESTART_LEVEL_ID_DUMP = 2,    /* "ALL_DISABLE", or no level: dump */
  MODEM_RESTART_LEVEL_ID_INVALID = 3, /* any other level */
  PELMAR_SSR_NAME_MIN_BYTES = 12,     /* pelmar_get_modem_ssr_type_name() */
};

/* The restart type in force, MODEM_RESTART_LEVEL_ID_*. While no level is saved, saves the one in force and returns
 * MODEM_RESTART_LEVEL_ID_DEF. */
PELMAR_EXPORT int32_t pelmar_get_modem_ssr_type(void);

/* Switches the restart type.
 * type  MODEM_RESTART_LEVEL_ID_DEF, _SSR or _DUMP
 * Returns 1 when the level was written; 0 when it was in force already, for MODEM_RESTART_LEVEL_ID_DEF while no level
 * is saved, and for another type. */
PELMAR_EXPORT int32_t pelmar_set_modem_ssr_type(int32_t type);

/* Copies the text of the level in force, "CONFIG_EMPTY" where there is none or no room was named. A null argument is
 * logged, and nothing is copied.
 *
 * name        out: not terminated; zero it first. *in_out_len bytes, but at least PELMAR_SSR_NAME_MIN_BYTES
 * in_out_len  in: the most bytes of the level to copy; not updated */
PELMAR_EXPORT void pelmar_get_modem_ssr_type_name(char* name, uint32_t* in_out_len);

/* Blocks the calling thread while a restart settles.
 * wait_s  seconds; negative: those of "persist.radio.ssr_wait_s", default 5
 * Returns the seconds waited; a value below 1 does not wait. */
PELMAR_EXPORT int32_t pelmar_modem_ssr_wait_s(int32_t wait_s);

#ifdef __cplusplus
}
#endif

#endif
