/* The NAS service (0x03): network access. A connection serves one subscription. */
#ifndef NETWORK_ACCESS_SERVICE_V01_H
#define NETWORK_ACCESS_SERVICE_V01_H

#include <stdint.h>

#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  NAS_SERVICE_ID_V01 = 0x03,
  NAS_V01_IDL_MAJOR_VERS = 1,
  NAS_V01_IDL_MINOR_VERS = 388,
  NAS_V01_IDL_TOOL_VERS = 6,
  QMI_NAS_REGISTER_INDICATIONS_V01 = 0x0003,
  QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01 = 0x0033,
  QMI_NAS_GET_CELL_LOCATION_INFO_V01 = 0x0043,
  QMI_NAS_BIND_SUBSCRIPTION_V01 = 0x0045,
  QMI_NAS_GET_DRX_V01 = 0x0089,
  QMI_NAS_SET_AVOID_TRM_V01 = 0x0098,
  QMI_NAS_SET_LTE_CELL_LOCK_V01 = 0x00D8,
};

/* The service's object, or null for any other version triple. */
qmi_idl_service_object_type nas_get_service_object_internal_v01(int32_t idl_maj_version, int32_t idl_min_version,
                                                                int32_t library_version);

#ifdef __cplusplus
}
#endif

#endif
