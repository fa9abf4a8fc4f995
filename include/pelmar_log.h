/* Logging: two sinks, the system log ("logcat") and standard output ("shell"), each behind a mask of levels.
 *
 * A line of the library reads
 *     [process][file:line] function: body       system log, or
 *     SUB[instance][file:line] function: body   system log of a RIL instance, and
 *     RIL[file:line] function: body             standard output.
 *
 * Both masks are open at first (0xFFFF). The first test of a sink narrows its mask, once per process, by a property:
 * "persist.vendor.radio.adb_log_ka" (system log) or "persist.vendor.radio.adb_log_shell" (standard output), each a
 * decimal mask of the levels to keep; text that is no number closes the sink. Mask operations change a mask at any
 * time, from any thread; a line that is being written meanwhile may still go by the old mask. They report themselves to
 * the system log at debug level, whatever the masks.
 *
 * To keep the library's lines off standard output, call pelmar_hal_close_shell_print() before anything else of the
 * library, or set the property "persist.vendor.radio.adb_log_shell" to "0" before the process starts: the one is for a
 * program, the other for every process of the system.
 */
#ifndef PELMAR_LOG_H
#define PELMAR_LOG_H

#include <stdbool.h>
#include <stdint.h>

#include "pelmar_export.h"

#if defined(__GNUC__)
#define PELMAR_PRINTF_FORMAT(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))
#else
#define PELMAR_PRINTF_FORMAT(format_index, first_argument)
#endif

#ifdef __cplusplus
extern "C" {
#endif

enum {
  PELMAR_LOG_LEVEL_ERROR = 1,
  PELMAR_LOG_LEVEL_DEBUG = 4,
  PELMAR_RIL_INSTANCE_UNKNOWN = 255,
};

/* The RIL instance that this process is. The library never writes it; a RIL host process stores its number here, and
 * log lines then carry it instead of the process name. PELMAR_RIL_INSTANCE_UNKNOWN until then. */
extern PELMAR_EXPORT uint32_t g_pelmar_qcril_ril_process_instance_id;

/* Write one line to the system log, at priority 3 (LOG_ERR) and 7 (LOG_DEBUG), with no prefix and no mask test. */
PELMAR_EXPORT void pelmar_utils_syslog_err(const char* fmt, ...) PELMAR_PRINTF_FORMAT(1, 2);
PELMAR_EXPORT void pelmar_utils_syslog_dbg(const char* fmt, ...) PELMAR_PRINTF_FORMAT(1, 2);

/* Formats into a buffer of `size` bytes, terminator included; text that does not fit is cut.
 * Returns the length of the whole text, or 0, with nothing written, for a null buffer or a size below 1. */
PELMAR_EXPORT int32_t pelmar_utils_format_log_msg(char* buf, int32_t size, const char* fmt, ...)
    PELMAR_PRINTF_FORMAT(3, 4);

/* Whether a level passes a sink: every bit of `level` is set in the sink's mask. The first call of each in a process
 * merges the sink's property into its mask. */
PELMAR_EXPORT bool pelmar_hal_get_logcat_print_flag(int32_t level);
PELMAR_EXPORT bool pelmar_hal_get_shell_print_flag(int32_t level);

/* The system log's mask: keep only the levels of `mask`, add them, take them away, or take `mask` as it is. */
PELMAR_EXPORT void pelmar_hal_merge_logcat_print_mask(uint32_t mask);
PELMAR_EXPORT void pelmar_hal_add_logcat_print_mask(uint32_t mask);
PELMAR_EXPORT void pelmar_hal_remove_logcat_print_mask(uint32_t mask);
PELMAR_EXPORT void pelmar_hal_set_logcat_print_mask(uint32_t mask);

/* Closes the system log for every level, until levels are added or set again. */
PELMAR_EXPORT void pelmar_utils_close_logcat_print(void);

/* The same for standard output. */
PELMAR_EXPORT void pelmar_hal_merge_shell_print_mask(uint32_t mask);
PELMAR_EXPORT void pelmar_hal_add_shell_print_mask(uint32_t mask);
PELMAR_EXPORT void pelmar_hal_remove_shell_print_mask(uint32_t mask);
PELMAR_EXPORT void pelmar_hal_set_shell_print_mask(uint32_t mask);
PELMAR_EXPORT void pelmar_hal_close_shell_print(void);

/* Closes both sinks, silently. */
PELMAR_EXPORT void pelmar_hal_close_print(void);

#ifdef __cplusplus
}

/* --- C++ linkage: for C++ callers alone --- */

/* The property echo: whether reads and writes of properties are logged at debug level. Decided once
 * per process, by the first of this function, pelmar_print_property_value() and pelmar_get_property_value(): on when
 * "persist.vendor.radio.print_prop" (default "1") is exactly "1". */
PELMAR_EXPORT bool pelmar_utils_get_prop_print_flag();

/* Logs "name: value" of one property, when the echo is on; a property without value reads "null_val".
 * name  cut after 255 characters; null is logged as an error */
PELMAR_EXPORT void pelmar_print_property_value(const char* name);
#endif

#endif
