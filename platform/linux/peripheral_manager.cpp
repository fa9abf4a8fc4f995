// The peripheral manager's functions as the phone declares them: handles are looked up, arguments checked, the rest is
// the voter's.
#include <memory>

#include "guarded.h"
#include "handle_table.h"
#include "manager_link.h"
#include "platform_export.h"
#include "pm-service.h"
#include "voter.h"

namespace pelmar::platform::power {
namespace {

HandleTable<Voter, void*>& voters() {
  return HandleTable<Voter, void*>::of_this_process();
}

int register_voter(const Voter::Callback& callback, const Register& names, pm_event* state, void** handle) {
  if (!is_good_name(names.device) || !is_good_name(names.voter)) return PM_RET_FAILED;
  const auto voter = std::make_shared<Voter>(callback);
  pm_event found = EVENT_PERIPH_IS_OFFLINE;
  const int result = voter->enrol(manager_socket(), names, found);
  if (result != PM_RET_SUCCESS) return result;

  void* const own = new_handle<void*>();
  void* const before = __atomic_load_n(handle, __ATOMIC_ACQUIRE);
  voters().add(own, voter);
  if (state != nullptr) *state = found;
  // Before a callback can use it. One of an earlier registration may be reading it meanwhile.
  __atomic_store_n(handle, own, __ATOMIC_RELEASE);
  try {
    voter->start();
  } catch (...) {
    __atomic_store_n(handle, before, __ATOMIC_RELEASE);
    voters().remove(own);
    voter->end();
    throw;
  }
  return PM_RET_SUCCESS;
}

template <typename Operation>
int with_voter(void* handle, Operation operation) {
  const auto voter = voters().find(handle);
  return voter != nullptr ? guarded(PM_RET_FAILED, [&] { return operation(*voter); }) : PM_RET_FAILED;
}

}  // namespace
}  // namespace pelmar::platform::power

using namespace pelmar::platform::power;
using pelmar::platform::guarded;

extern "C" {

PELMAR_PLATFORM_EXPORT int pm_client_register(pm_client_event_cb cb, void* client_data, const char* device_name,
                                              const char* client_name, enum pm_event* state, void** handle) {
  if (cb == nullptr || device_name == nullptr || client_name == nullptr || handle == nullptr) return PM_RET_FAILED;
  return guarded(PM_RET_FAILED, [&] {
    return register_voter({cb, client_data}, {device_name, client_name}, state, handle);
  });
}

PELMAR_PLATFORM_EXPORT int pm_client_connect(void* handle) {
  return with_voter(handle, [](Voter& voter) { return voter.vote(); });
}

PELMAR_PLATFORM_EXPORT int pm_client_disconnect(void* handle) {
  return with_voter(handle, [](Voter& voter) { return voter.withdraw(); });
}

PELMAR_PLATFORM_EXPORT int pm_client_unregister(void* handle) {
  const auto voter = voters().remove(handle);
  if (voter == nullptr) return PM_RET_FAILED;
  voter->end();
  return PM_RET_SUCCESS;
}

PELMAR_PLATFORM_EXPORT int pm_client_event_acknowledge(void* handle, enum pm_event event) {
  if (event < EVENT_PERIPH_GOING_OFFLINE || event > EVENT_PERIPH_IS_ONLINE) return PM_RET_FAILED;
  return with_voter(handle, [event](Voter& voter) { return voter.acknowledge(event); });
}

}  // extern "C"
