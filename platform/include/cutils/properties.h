/* System properties: named values shared by all processes of the system. */
#ifndef CUTILS_PROPERTIES_H
#define CUTILS_PROPERTIES_H

#define PROPERTY_VALUE_MAX 92 /* bytes of a value, its terminator included */

#ifdef __cplusplus
extern "C" {
#endif

/* Copies a property's value to `value`, which has at least PROPERTY_VALUE_MAX bytes; the default if the property has no
 * value (a null default: the empty string). Returns the length copied, without the terminator. */
int property_get(const char* name, char* value, const char* default_value);

/* Sets a property for all processes. A property whose name begins with "ro." can be set once; one whose name begins
 * with "persist." outlives a restart. Returns 0, or a negative number if the platform refuses it. */
int property_set(const char* name, const char* value);

#ifdef __cplusplus
}
#endif

#endif
