// One NAS service client by its subscription: nas_0_client.cpp and nas_1_client.cpp each hold this once.
//
// A NAS client differs from the SAR client in that it logs its first connection attempt too, binds its subscription
// after every attempt, and registers for indications once it is connected, also when it comes back by itself.
#pragma once

#include "nas_client.h"
#include "nas_requests.h"
#include "network_access_service_v01.h"
#include "service_client_functions.h"
#include "shared_word.h"

namespace pelmar::nas {

inline qmi_idl_service_object_type get_service_object() {
  return nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS);
}

template <uint32_t kSub>
void bind(qmi_client_type handle) {
  bind_subscription(handle, kSub);
}

}  // namespace pelmar::nas

#define PELMAR_NAS_CLIENT(prefix, client_type, sub)                                                            \
  reconnecting_client_context prefix##_client_info;                                                            \
                                                                                                               \
  namespace {                                                                                                  \
  constinit pelmar::ServiceClientState g_##prefix##_client_state;                                              \
  void enable_indications() {                                                                                  \
    prefix##_client_set_networking_indications();                                                              \
  }                                                                                                            \
  constexpr pelmar::ServiceClient kClient = PELMAR_RECONNECTING_CLIENT(                                        \
      prefix, client_type, true, pelmar::nas::get_service_object, pelmar::nas::bind<sub>, enable_indications); \
  }                                                                                                            \
                                                                                                               \
  PELMAR_RECONNECTING_CLIENT_FUNCTIONS(prefix, kClient)                                                        \
                                                                                                               \
  int32_t prefix##_client_set_networking_indications() {                                                       \
    PELMAR_LOG_ENTRY();                                                                                        \
    const int32_t code = pelmar::nas::register_indications(pelmar::load(prefix##_client_info.client_handle));  \
    PELMAR_LOG_DEBUG("enable_indication result: %d", code);                                                    \
    PELMAR_LOG_EXIT_RET(code);                                                                                 \
    return code;                                                                                               \
  }
