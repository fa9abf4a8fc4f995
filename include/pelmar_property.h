/* System properties, and what they state about this device: its build, region, name and subscriptions.
 *
 * What identifies the device is read once per process and kept, except the values whose declaration states that each
 * call reads them. Names are cut after 255 characters. Every operation may be called from any thread. Strings that are
 * returned belong to the library and are never freed.
 */
#ifndef PELMAR_PROPERTY_H
#define PELMAR_PROPERTY_H

#include <stdbool.h>
#include <stdint.h>

#include "pelmar_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  PELMAR_PROPERTY_BUFFER_BYTES = 256,   /* of a buffer that a value is read into */
  PELMAR_PROPERTY_WRITE_MAX_BYTES = 92, /* of a value written, without its terminator */
};

/* pelmar_build_type_get() */
enum {
  PELMAR_BUILD_TYPE_ALL = 0, /* in a list of build types: any */
  PELMAR_BUILD_TYPE_PRE = 1,
  PELMAR_BUILD_TYPE_FACTORY = 2,
  PELMAR_BUILD_TYPE_CERT = 3,
  PELMAR_BUILD_TYPE_STABLE = 4,
  PELMAR_BUILD_TYPE_NATIVE = 5,
  PELMAR_BUILD_TYPE_DEV = 6,
};

enum { PELMAR_ACTIVE_CALL_SUB_NONE = 8 };

/* --- reading and writing ---
 * A null argument is logged as an error and leaves everything untouched. */

/* Reads a property, or the default where it has no value.
 * value  out: PELMAR_PROPERTY_BUFFER_BYTES; terminated, cut after 255 bytes */
PELMAR_EXPORT void pelmar_get_property_value(const char* name, char* value, const char* default_value);

/* Writes a property; a value longer than PELMAR_PROPERTY_WRITE_MAX_BYTES is refused and logged as an error. The
 * platform may refuse a value for reasons of its own; the echo in the log shows what is stored. */
PELMAR_EXPORT void pelmar_set_property_value(const char* name, const char* value);

/* The same for decimal integers. Reading stores the number through `value` and returns it; text that is no number reads
 * 0. After a refusal the default is returned. */
PELMAR_EXPORT void pelmar_set_property_value_to_int(const char* name, int32_t value);
PELMAR_EXPORT int32_t pelmar_get_property_value_from_int(const char* name, int32_t* value, int32_t default_value);

/* --- the build --- */

PELMAR_EXPORT bool pelmar_is_factory_version(void); /* ro.boot.factorybuild begins with '1' */
PELMAR_EXPORT bool pelmar_is_ct_cert_version(void); /* ro.cust.test is "ct" */
PELMAR_EXPORT bool pelmar_is_cm_cert_version(void); /* ro.cust.test is "cm" */
PELMAR_EXPORT bool pelmar_is_cu_cert_version(void); /* ro.cust.test is "cu" */
PELMAR_EXPORT bool pelmar_is_cert_version(void);    /* ro.cust.test is set, to anything but "NULL" */
PELMAR_EXPORT bool pelmar_is_china_version(void);   /* ro.vendor.radio.build_region is "cn" */
PELMAR_EXPORT bool pelmar_is_test_build(void);      /* ro.build.tags is not "release-keys" */
PELMAR_EXPORT bool pelmar_is_root_version(void);    /* ro.debuggable is "1" */
PELMAR_EXPORT bool pelmar_is_mp_version(void);      /* ro.boot.hwlevel is "MP" */
PELMAR_EXPORT bool pelmar_is_orbo_version(void);    /* ro.orbo.build.region is set, to anything but "NULL" */

/* ro.build.type is "user" or unset. Only the first call reads it; every later one returns false. */
PELMAR_EXPORT bool pelmar_is_user_version(void);

/* ro.vendor.radio.build_profile contains "native", "factory". */
PELMAR_EXPORT bool pelmar_is_native_version(void);
PELMAR_EXPORT bool pelmar_is_factory_version_ex(void);

/* The build type is PELMAR_BUILD_TYPE_PRE, _DEV, _STABLE. */
PELMAR_EXPORT bool pelmar_is_pre_version(void);
PELMAR_EXPORT bool pelmar_is_dev_version(void);
PELMAR_EXPORT bool pelmar_is_stable_version(void);

/* PELMAR_BUILD_TYPE_*: certification has precedence over the build profile; an unknown profile is PRE. */
PELMAR_EXPORT int32_t pelmar_build_type_get(void);

/* ro.vendor.radio.manufacturer_id and ro.radio.device_type, default 0. Only the first call returns the number; every
 * later one returns 0. */
PELMAR_EXPORT int32_t pelmar_get_pelmar_manufacturer_id(void);
PELMAR_EXPORT int32_t pelmar_get_pelmar_device_type(void);

/* Writes ro.vendor.radio.manufacturer_id, as pelmar_set_property_value_to_int() does. */
PELMAR_EXPORT void pelmar_set_pelmar_manufacturer_id(int32_t id);

/* --- device and region --- */

/* ro.product.device; empty where it is not set. */
PELMAR_EXPORT const char* pelmar_device_name_get(void);

/* ro.orbo.build.region; "NULL" where it is not set. */
PELMAR_EXPORT const char* pelmar_build_region_get(void);

/* persist.vendor.radio.build_region, read anew; "NULL" where it is not set. Valid until the calling thread's next call
 * or its end. */
PELMAR_EXPORT const char* pelmar_vendor_build_region_get(void);

/* Whether that region differs from "NULL"; read anew. */
PELMAR_EXPORT bool pelmar_vendor_build_region_is_cfged(void);

/* --- lists ---
 * `count` elements at `list`. A null list, a null string and a count of 0 are logged as errors and return false; so is
 * every miss. Null entries are skipped. */

/* Whether an entry of the list occurs anywhere in `str`; an empty entry occurs in every string. */
PELMAR_EXPORT bool pelmar_string_list_contain(const char* const* list, uint32_t count, const char* str);

/* The same test for the device name and the build region, and before it for "all_product" and "all_region": an entry
 * that is such a word, or any part of one ("all"), is found on every device. */
PELMAR_EXPORT bool pelmar_device_name_list_contain(const char* const* list, uint32_t count);
PELMAR_EXPORT bool pelmar_build_region_list_contain(const char* const* list, uint32_t count);

/* Whether the list has PELMAR_BUILD_TYPE_ALL or this build's type. */
PELMAR_EXPORT bool pelmar_build_type_list_contain(const int8_t* list, uint32_t count);

/* Whether the list has a number. Elements are compared as signed numbers of their width. */
PELMAR_EXPORT bool pelmar_int8_list_contain(const uint8_t* list, uint32_t count, int8_t value);
PELMAR_EXPORT bool pelmar_int16_list_contain(const uint16_t* list, uint32_t count, int16_t value);
PELMAR_EXPORT bool pelmar_int32_list_contain(const uint32_t* list, uint32_t count, int32_t value);
PELMAR_EXPORT bool pelmar_int64_list_contain(const uint64_t* list, uint32_t count, int64_t value);

/* --- subscriptions: ids 0 and 1; masks with bit `id` set --- */

/* persist.radio.multisim.config is "ssss"; read anew. */
PELMAR_EXPORT bool pelmar_get_single_sim_flag(void);

PELMAR_EXPORT bool pelmar_check_sub_mask(int32_t mask); /* 1 to 3 */
PELMAR_EXPORT bool pelmar_check_sub_id(uint32_t id);    /* 0 and 1 */

/* The mask of one subscription; 0 for any other id. */
PELMAR_EXPORT uint32_t pelmar_get_sub_mask_by_id(uint32_t id);

/* The default data subscription (default 0) and that of the active call (default PELMAR_ACTIVE_CALL_SUB_NONE), kept in
 * persist.radio.default_data_sub and persist.radio.active_call_sub and read anew. The number is not checked. */
PELMAR_EXPORT void pelmar_update_default_data_sub(int32_t sub);
PELMAR_EXPORT int32_t pelmar_get_default_data_sub(void);
PELMAR_EXPORT void pelmar_update_active_call_sub(int32_t sub);
PELMAR_EXPORT int32_t pelmar_get_active_call_sub(void);

#ifdef __cplusplus
}
#endif

#endif
