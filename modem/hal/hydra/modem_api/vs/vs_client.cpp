// The vendor-specific service client: the connection that carries the library's own commands and brings modem events.
//
// It does not come back by itself: a lost service is logged and nothing else, and later sends answer the framework's
// code.
#include "vs_client.h"

#include "service_client_functions.h"
#include "shared_word.h"
#include "vs_events.h"
#include "vs_messages.h"
#include "vs_service_object.h"

vs_client_context vs_client_info;

namespace {

qmi_idl_service_object_type get_service_object() {
  using namespace pelmar::vs;
  return vs_get_service_object_internal_v01(kIdlMajorVersion, kIdlMinorVersion, kIdlLibraryVersion);
}

constinit pelmar::ServiceClientState g_vs_client_state;

constexpr pelmar::ServiceClient kVsClient = {
    .type = MODEM_API_CLIENT_VS,
    .context = pelmar::fields_of(vs_client_info),
    .entry = {.command = vs_client_command_cb,
              .indication = vs_client_unsol_ind_cb,
              .service_down = vs_client_service_down_event,
              .service_up = nullptr,
              .release_thread = nullptr,
              .resume_thread = nullptr},
    .names = {.init = "vs_client_init",
              .master_port = "vs_client_get_master_port",
              .init_handles = nullptr,
              .unsol_ind = "vs_client_unsol_ind_cb",
              .service_down = "vs_client_service_down_event",
              .suspend = nullptr,
              .resume = nullptr,
              .release_thread = nullptr,
              .ind_hdlr = "vs_client_ind_hdlr"},
    .indications = {.no_event_callback = "The hydra is not inited, do nothing",
                    .no_memory = "decoded_payload is NULL",
                    .needs_size = true,
                    .deliver = pelmar::vs::deliver_event},
    .logs_first_try = true,
    .service_object = get_service_object,
    .after_attempt = nullptr,
    .before_error_callback = nullptr,
    .state = g_vs_client_state,
};

}  // namespace

PELMAR_SERVICE_CLIENT_FUNCTIONS(vs, kVsClient)

qmi_idl_service_object_type vs_get_service_object_internal_v01(uint32_t idl_major, int32_t idl_minor,
                                                               int32_t library_version) {
  using namespace pelmar::vs;
  PELMAR_LOG_ENTRY();
  const bool matches = idl_major == kIdlMajorVersion && idl_minor == static_cast<int32_t>(kIdlMinorVersion) &&
                       library_version == static_cast<int32_t>(kIdlLibraryVersion);
  PELMAR_LOG_EXIT();
  return matches ? &vs_qmi_idl_service_object_v01 : nullptr;
}

qmi_idl_service_object_type vs_init() {
  PELMAR_LOG_ENTRY();
  pelmar::prepare(kVsClient);
  PELMAR_LOG_EXIT();
  return pelmar::load(vs_client_info.service_object);
}
