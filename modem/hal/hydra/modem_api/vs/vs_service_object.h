// The description of the vendor-specific service (0xE4), for the QMI framework's codec.
#pragma once

#include "pelmar_export.h"
#include "qmi_idl_lib_internal.h"

extern "C" PELMAR_EXPORT const qmi_idl_service_object vs_qmi_idl_service_object_v01;
