// The exported description of the vendor-specific service (0xE4).
#include "vs_tables.h"

#include "vs_client.h"

using namespace pelmar::vs;

constinit const qmi_idl_service_object vs_qmi_idl_service_object_v01 =
    Tables::service(kServiceId, kIdlMajorVersion, kIdlMinorVersion, kIdlLibraryVersion);
