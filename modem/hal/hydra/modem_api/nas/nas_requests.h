// The two requests that a NAS connection sends for itself.
#pragma once

#include <cstdint>

#include "qmi_client.h"

namespace pelmar::nas {

inline constexpr size_t kRegisterIndicationsBytes = 175;
inline constexpr size_t kServingSystemValid = 4;  // offset of a presence flag; its value byte stays 0

// The indication-register request in the form of the platform's NAS service object.
struct RegisterIndicationsRequest {
  uint8_t bytes[kRegisterIndicationsBytes];
};
static_assert(sizeof(RegisterIndicationsRequest) == 175);

constexpr RegisterIndicationsRequest serving_system_registration() {
  RegisterIndicationsRequest request{};
  request.bytes[kServingSystemValid] = 1;
  return request;
}

// Binds a connection to a subscription, 0 or 1. The outcome is ignored: a connection whose binding failed is up all the
// same.
void bind_subscription(qmi_client_type handle, uint32_t sub);

// Returns the transport code.
int32_t register_indications(qmi_client_type handle);

}  // namespace pelmar::nas
