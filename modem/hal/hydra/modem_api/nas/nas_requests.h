// What the two NAS connections share: the description of the service, and the two requests that a connection sends
// for itself.
#pragma once

#include <cstdint>

#include "nas_messages.h"
#include "qmi_client.h"

namespace pelmar::nas {

// The platform's description of the service.
qmi_idl_service_object_type get_service_object();

// Names the serving system's indication as a valid field whose value stays 0.
constexpr RegisterIndicationsRequest serving_system_registration() {
  RegisterIndicationsRequest request{};
  request.serving_system.valid = 1;
  return request;
}

// Binds a connection to a subscription, 0 or 1. The outcome is ignored: a connection whose binding failed is up all the
// same.
void bind_subscription(qmi_client_type handle, uint32_t sub);

// Returns the transport code.
int32_t register_indications(qmi_client_type handle);

}  // namespace pelmar::nas
