// The SAR service client. It delivers no event: the service has no indication that the library uses.
#include "sar_client.h"

#include "service_client_functions.h"
#include "specific_absorption_rate_v01.h"

reconnecting_client_context sar_client_info;

namespace {

qmi_idl_service_object_type get_service_object() {
  return sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS);
}

constinit pelmar::ServiceClientState g_sar_client_state;

constexpr pelmar::ServiceClient kSarClient =
    PELMAR_RECONNECTING_CLIENT(sar, MODEM_API_CLIENT_SAR, false, get_service_object, nullptr, nullptr);

}  // namespace

PELMAR_RECONNECTING_CLIENT_FUNCTIONS(sar, kSarClient)
