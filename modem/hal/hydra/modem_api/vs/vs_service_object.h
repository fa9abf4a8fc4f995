// The description of the vendor-specific service (0xE4), for the QMI framework's codec.
#pragma once

#include "pelmar_export.h"
#include "qmi_idl_lib_internal.h"

extern "C" {

extern PELMAR_EXPORT const qmi_idl_service_object vs_qmi_idl_service_object_v01;

// The service's object when the arguments are exactly 1, 2 and 6, else null.
PELMAR_EXPORT qmi_idl_service_object_type vs_get_service_object_internal_v01(uint32_t idl_major, int32_t idl_minor,
                                                                             int32_t library_version);
}
