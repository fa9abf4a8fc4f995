/* The process that the library runs in, and a search of the process table.
 *
 * Names are read from the process file system once per process and kept; a process that changes its name later keeps
 * the first one. While one thread reads the name for the first time, other threads may get an empty name. Names
 * live as long as the library and are never freed.
 */
#ifndef PELMAR_PROCESS_H
#define PELMAR_PROCESS_H

#include <stdint.h>

#include "pelmar_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A process: its id and the last part of its program path, terminated. */
typedef struct {
  int32_t p_id;
  char p_name[256];
} pelmar_pid_info;

/* This process's name, from its command line; empty when that cannot be read. The lines of the system log have this
 * name, unless the RIL instance is set. It reports to the system log alone, with no prefix and whatever the masks. */
PELMAR_EXPORT const char* pelmar_get_current_pid_name(void);

/* Fills a record with this process's id and name, read anew on every call. Null is logged as an error. */
PELMAR_EXPORT void pelmar_get_current_pid_info(pelmar_pid_info* info);

/* This process's name and id, from a record that the first call of either fills. */
PELMAR_EXPORT const char* pelmar_utils_get_pid_name(void);
PELMAR_EXPORT int32_t pelmar_utils_get_pid_number(void);

/* g_pelmar_qcril_ril_process_instance_id. */
PELMAR_EXPORT uint32_t pelmar_get_qcril_process_instance_id(void);

#ifdef __cplusplus
}

/* --- C++ linkage: for C++ callers alone --- */

/* The same as pelmar_get_current_pid_name(), from the status file, which has at most 15 characters of the name.
 * pelmar_get_current_pid_name(), pelmar_utils_get_pid_name() and the log lines then have this name, until another of
 * the functions reads the name for the first time. */
PELMAR_EXPORT const char* pelmar_get_current_pid_name_ex();

/* Searches the process table.
 *
 * pid        out: the process's id; untouched when none matches
 * task_name  compared with an always empty candidate: no name is ever found, and the empty name is found in the first
 *            process that can be read */
PELMAR_EXPORT void pelmar_get_pid_by_name(int32_t* pid, const char* task_name);
#endif

#endif
