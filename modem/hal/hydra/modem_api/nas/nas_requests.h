// What the two NAS connections share: the description of the service, and the requests that a connection itself sends.
#pragma once

#include <cstdint>

#include "nas_messages.h"
#include "network_access_service_v01.h"
#include "service_client.h"

namespace pelmar::nas {

// The platform's description of the service.
inline qmi_idl_service_object_type get_service_object() {
  return nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS);
}

// Marks the serving system's indication as a valid field; its value stays 0.
constexpr RegisterIndicationsRequest serving_system_registration() {
  RegisterIndicationsRequest request{};
  request.serving_system.valid = 1;
  return request;
}

// Sends a request whose response is a result alone. Returns the transport code.
template <typename Request>
int32_t send_plain(qmi_client_type handle, uint32_t msg_id, Request request) {
  PlainResponse response = {};
  return qmi_client_send_msg_sync(handle, msg_id, &request, sizeof(request), &response, sizeof(response),
                                  kSendTimeoutMs);
}

// Binds a connection to a subscription, 0 or 1. The outcome is ignored: a connection without the binding is up too.
template <uint32_t kSubscription>
void bind_subscription(qmi_client_type handle) {
  send_plain(handle, QMI_NAS_BIND_SUBSCRIPTION_V01, BindSubscriptionRequest{kSubscription});
}

// Returns the transport code.
inline int32_t register_indications(qmi_client_type handle) {
  return send_plain(handle, QMI_NAS_REGISTER_INDICATIONS_V01, serving_system_registration());
}

}  // namespace pelmar::nas
