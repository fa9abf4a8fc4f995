/* Strings, files, threads and a guarded allocation pair.
 *
 * All are reentrant and keep no state. Refusals (a null pointer, a length out of range) are logged as errors; each
 * operation names what it then returns. Strings are terminated and are neither kept nor freed. A destination must not
 * overlap a source except where its declaration permits it.
 */
#ifndef PELMAR_STRING_H
#define PELMAR_STRING_H

#include <stdbool.h>
#include <stdint.h>

#include "pelmar_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* pelmar_str_cmp() */
enum {
  PELMAR_STR_SAME = 0,
  PELMAR_STR_FIRST_IS_NULL = -101,
  PELMAR_STR_SECOND_IS_NULL = -102,
  PELMAR_STR_LENGTHS_DIFFER = -103,
  PELMAR_STR_BYTES_DIFFER = 104, /* the one positive code */
};

/* pelmar_copy_file() */
enum {
  PELMAR_COPY_DONE = 0,
  PELMAR_COPY_SOURCE_IS_NULL = -1,
  PELMAR_COPY_TARGET_IS_NULL = -2,
  PELMAR_COPY_SOURCE_NOT_OPENED = -3,
  PELMAR_COPY_TARGET_NOT_OPENED = -4,
  PELMAR_COPY_FAILED = -5, /* a read or a write failed; the target may have part of the source */
};

/* Takes the white space (bytes 9 to 13 and the space) from both ends of a string, in place.
 *
 * str          may lack a terminator within str_len_max bytes: it is then cut to str_len_max - 1 bytes first
 * str_len_max  bytes at `str`, 2 or more
 *
 * Returns the length of what is left; 0, with nothing changed, for a refusal. */
PELMAR_EXPORT int pelmar_str_trim(char* str, uint32_t str_len_max);

/* The last occurrence of a character, or null. The terminator counts as the last character of the string. */
PELMAR_EXPORT char* pelmar_str_find_right(const char* str, char c);

/* Compares the lengths, then the bytes. Returns PELMAR_STR_SAME or one of the codes above. */
PELMAR_EXPORT int32_t pelmar_str_cmp(const char* str1, const char* str2);

/* Copies a string with every occurrence of `src`, from left to right, replaced by `dst`.
 *
 * out     terminated in every case, after a refusal as an empty string
 * outlen  bytes at `out`; the copy ends where the next piece would make the text outlen - 1 bytes long or longer
 * src     not empty
 * dst     may be empty */
PELMAR_EXPORT void pelmar_str_rpl(char* out, char* in, uint32_t outlen, const char* src, const char* dst);

/* Writes `prefix` followed by `in` into `out`, which may be `in` itself.
 * outlen  bytes at `out`
 * Returns false, with `out` untouched, for a refusal: also when the two do not fit with their terminator. */
PELMAR_EXPORT bool pelmar_str_add_prefix(const char* in, char* out, int32_t outlen, const char* prefix);

/* Renders bytes as text: a space and the high hexadecimal digit of each. The low digit is left out.
 *
 * hex_str   zeroed first; terminated
 * str_len   bytes at hex_str, 4 or more; it alone decides how many bytes are rendered
 * ptr_data  at least (str_len - 3) / 2 bytes, rounded up
 *
 * Returns false, with hex_str untouched, for a refusal. */
PELMAR_EXPORT bool pelmar_get_hex_str(char* hex_str, int32_t str_len, const uint8_t* ptr_data);

/* Copies a file. An existing target is truncated, a missing one is created with mode 0777 (less the process's mask).
 * Blocks until the copy is done. Returns PELMAR_COPY_DONE or one of the codes above. */
PELMAR_EXPORT int32_t pelmar_copy_file(const char* src, const char* tgt);

/* Starts a detached thread.
 * name  for the log line alone; may be null
 * Returns 0 or an error number; EINVAL for a null start_routine. */
PELMAR_EXPORT int32_t pelmar_create_pthread(const char* name, void* (*start_routine)(void*), void* arg);

/* A block of `size` bytes, not zeroed, for pelmar_mem_free(); null for size 0 or when there is no memory. */
PELMAR_EXPORT void* pelmar_mem_malloc(uint32_t size);

/* Frees *p and sets it to null; nothing for a null `p` or `*p`. */
PELMAR_EXPORT void pelmar_mem_free(void** p);

#ifdef __cplusplus
}

/* --- C++ linkage: for C++ callers alone --- */

/* Logs a string as a whole and then a line for each of its characters. */
PELMAR_EXPORT void pelmar_str_print(char* str);
#endif

#endif
