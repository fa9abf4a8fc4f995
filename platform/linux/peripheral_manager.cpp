// The peripheral manager's client. This machine has no manager yet: nobody can be registered, so no handle is good.
#include "platform_export.h"
#include "pm-service.h"

extern "C" {

PELMAR_PLATFORM_EXPORT int pm_client_register(pm_client_event_cb, void*, const char*, const char*, enum pm_event*,
                                              void**) {
  return PM_RET_FAILED;
}

PELMAR_PLATFORM_EXPORT int pm_client_connect(void*) {
  return PM_RET_FAILED;
}

PELMAR_PLATFORM_EXPORT int pm_client_disconnect(void*) {
  return PM_RET_FAILED;
}

PELMAR_PLATFORM_EXPORT int pm_client_unregister(void*) {
  return PM_RET_FAILED;
}

PELMAR_PLATFORM_EXPORT int pm_client_event_acknowledge(void*, enum pm_event) {
  return PM_RET_FAILED;
}

}  // extern "C"
