/* System properties: named values shared by all processes of the system. */
#ifndef CUTILS_PROPERTIES_H
#define CUTILS_PROPERTIES_H

#define PROPERTY_VALUE_MAX 92 /* bytes of a value, its terminator included */

#ifdef __cplusplus
extern "C" {
#endif

/* Copies a property's value, or the default where it has none (a null default: the empty string), into `value`, which
 * holds at least PROPERTY_VALUE_MAX bytes. Returns the length copied, without the terminator. */
int property_get(const char* name, char* value, const char* default_value);

/* Sets a property; every process sees it. A name that begins with "ro." is set once, one that begins with "persist."
 * outlives a restart. Returns 0, or a negative number when the platform refuses it. */
int property_set(const char* name, const char* value);

#ifdef __cplusplus
}
#endif

#endif
