/* The SAR service (0x11): transmit power levels for specific absorption rate limits. */
#ifndef SPECIFIC_ABSORPTION_RATE_V01_H
#define SPECIFIC_ABSORPTION_RATE_V01_H

#include <stdint.h>

#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  SAR_SERVICE_ID_V01 = 0x11,
  SAR_V01_IDL_MAJOR_VERS = 1,
  SAR_V01_IDL_MINOR_VERS = 15,
  SAR_V01_IDL_TOOL_VERS = 6,
  QMI_SAR_RF_SET_STATE_V01 = 0x0001,
  QMI_SAR_RF_GET_STATE_V01 = 0x0002,
};

/* The service's object, or null for any other version triple. */
qmi_idl_service_object_type sar_get_service_object_internal_v01(int32_t idl_maj_version, int32_t idl_min_version,
                                                                int32_t library_version);

#ifdef __cplusplus
}
#endif

#endif
