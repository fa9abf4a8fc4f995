// The names of the processes that may use the library. They are compiled in and must match exactly.
#include <cstring>

#include "modem_api.h"
#include "pelmar_log_site.h"
#include "pelmar_process.h"

namespace {

constexpr const char* kWhiteList[] = {"qcrilNrd", "mtb", "modem_api_test"};

bool is_listed(const char* name) {
  for (const char* listed : kWhiteList) {
    if (std::strcmp(name, listed) == 0) return true;
  }
  return false;
}

}  // namespace

int32_t modem_api_check_white_list() {
  pelmar::Operation operation(PELMAR_HERE);
  const char* const name = pelmar_utils_get_pid_name();
  const int32_t passes = is_listed(name) ? 1 : 0;
  const char* const outcome = passes != 0 ? "pass" : "fail";
  PELMAR_LOG_DEBUG("check %s, p_id: %d, p_name: %s", outcome, pelmar_utils_get_pid_number(), name);
  return operation.exit(passes);
}
