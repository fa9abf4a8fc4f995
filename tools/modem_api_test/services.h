// The services that the library has clients for, by client type.
#pragma once

#include <span>

#include "modem_api.h"
#include "qmi_idl_lib.h"

namespace pelmar::cli {

struct ServiceRow {
  modem_api_client_type type;
  const char* name;   // for scripts
  const char* title;  // for people
  qmi_idl_service_object_type (*object)();
};

std::span<const ServiceRow> services();

const ServiceRow& service_of(modem_api_client_type type);

// Whether the modem has the service now. Asks the framework, which knows at once: opening an absent service would take
// ten seconds.
bool is_present(const ServiceRow& service);

// The NAS client type of a subscription, 0 or 1.
modem_api_client_type nas_client_of(uint32_t sub);

}  // namespace pelmar::cli
