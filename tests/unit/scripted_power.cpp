// The peripheral manager: one voter, whose calls end as a test says.
#include "scripted_platform.h"
#include "scripted_state.h"

namespace scripted {

std::vector<PmCall>& pm_calls = kNewObject;
std::map<std::string, int>& pm_results = kNewObject;
pm_client_event_cb pm_callback = nullptr;
void* pm_callback_data = nullptr;

}  // namespace scripted

using namespace scripted;

extern "C" {

int pm_client_register(pm_client_event_cb callback, void* data, const char* device, const char* client,
                       enum pm_event* state_out, void** handle) {
  pm_calls.push_back({.name = "register", .device = device, .client = client});
  const int result = pm_results["register"];
  if (result != 0) return result;
  static char voter;
  pm_callback = callback;
  pm_callback_data = data;
  *state_out = EVENT_PERIPH_IS_OFFLINE;
  *handle = &voter;
  return 0;
}

int pm_client_connect(void* handle) {
  pm_calls.push_back({.name = "connect", .handle = handle});
  return pm_results["connect"];
}

int pm_client_disconnect(void* handle) {
  pm_calls.push_back({.name = "disconnect", .handle = handle});
  return pm_results["disconnect"];
}

int pm_client_unregister(void* handle) {
  pm_calls.push_back({.name = "unregister", .handle = handle});
  return pm_results["unregister"];
}

int pm_client_event_acknowledge(void* handle, enum pm_event event) {
  pm_calls.push_back({.name = "event_acknowledge", .handle = handle, .event = event});
  return 0;
}
}
