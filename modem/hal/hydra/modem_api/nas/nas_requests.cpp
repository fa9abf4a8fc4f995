#include "nas_requests.h"

#include "service_client.h"

namespace pelmar::nas {

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
