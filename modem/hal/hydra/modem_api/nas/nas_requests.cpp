#include "nas_requests.h"

#include "network_access_service_v01.h"
#include "service_client.h"

namespace pelmar::nas {

qmi_idl_service_object_type get_service_object() {
  return nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS);
}

void bind_subscription(qmi_client_type handle, uint32_t sub) {
  BindSubscriptionRequest request = {sub};
  PlainResponse response = {};
  qmi_client_send_msg_sync(handle, QMI_NAS_BIND_SUBSCRIPTION_V01, &request, sizeof(request), &response,
                           sizeof(response), kSendTimeoutMs);
}

int32_t register_indications(qmi_client_type handle) {
  RegisterIndicationsRequest request = serving_system_registration();
  PlainResponse response = {};
  return qmi_client_send_msg_sync(handle, QMI_NAS_REGISTER_INDICATIONS_V01, &request, sizeof(request), &response,
                                  sizeof(response), kSendTimeoutMs);
}

}  // namespace pelmar::nas
