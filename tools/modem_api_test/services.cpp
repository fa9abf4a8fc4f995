#include "services.h"

#include "network_access_service_v01.h"
#include "qmi_client.h"
#include "specific_absorption_rate_v01.h"
#include "vs_client.h"

namespace pelmar::cli {

namespace {

qmi_idl_service_object_type vs_object() {
  return &vs_qmi_idl_service_object_v01;
}

qmi_idl_service_object_type sar_object() {
  return sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS);
}

qmi_idl_service_object_type nas_object() {
  return nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS);
}

// By client type: a row stands at its type.
constexpr ServiceRow kServices[] = {
    {MODEM_API_CLIENT_VS, "vs", "the vendor-specific service", vs_object},
    {MODEM_API_CLIENT_SAR, "sar", "the SAR service", sar_object},
    {MODEM_API_CLIENT_NAS_0, "nas_0", "the NAS service of subscription 0", nas_object},
    {MODEM_API_CLIENT_NAS_1, "nas_1", "the NAS service of subscription 1", nas_object},
};
static_assert(std::size(kServices) == MODEM_API_CLIENT_TYPES);

}  // namespace

std::span<const ServiceRow> services() {
  return kServices;
}

const ServiceRow& service_of(modem_api_client_type type) {
  return kServices[type];
}

bool is_present(const ServiceRow& service) {
  qmi_client_type notifier = nullptr;
  qmi_client_os_params parameters{};
  if (qmi_client_notifier_init(service.object(), &parameters, &notifier) != QMI_NO_ERR) return false;
  bool is_there = false;
  const auto on_presence = [](qmi_client_type, qmi_idl_service_object_type, qmi_client_notify_event_type event,
                              void* data) {
    if (event == QMI_CLIENT_SERVICE_COUNT_INC) *static_cast<bool*>(data) = true;
  };
  qmi_client_register_notify_cb(notifier, on_presence, &is_there);
  qmi_client_release(notifier);
  return is_there;
}

modem_api_client_type nas_client_of(uint32_t sub) {
  return sub == 0 ? MODEM_API_CLIENT_NAS_0 : MODEM_API_CLIENT_NAS_1;
}

}  // namespace pelmar::cli
