// Subscriptions: ids, masks, and which of them carries data and calls.
#include <cstring>

#include "pelmar_log_site.h"
#include "pelmar_property_value.h"

namespace pelmar {
namespace {

constexpr char kDefaultDataSub[] = "persist.radio.default_data_sub";
constexpr char kActiveCallSub[] = "persist.radio.active_call_sub";

constexpr bool is_sub(uint32_t id) {
  return id <= 1;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

bool pelmar_get_single_sim_flag(void) {
  PELMAR_LOG_ENTRY();
  PropertyValue config = {};
  pelmar_get_property_value("persist.radio.multisim.config", config, "dsds");
  const bool single = std::strcmp(config, "ssss") == 0;
  PELMAR_LOG_DEBUG("%s", single ? "single sim version" : "non single sim version");
  PELMAR_LOG_EXIT_RET(single);
  return single;
}

bool pelmar_check_sub_mask(int32_t mask) {
  PELMAR_RETURN_LOGGED(mask >= 1 && mask <= 3);
}

bool pelmar_check_sub_id(uint32_t id) {
  PELMAR_RETURN_LOGGED(is_sub(id));
}

uint32_t pelmar_get_sub_mask_by_id(uint32_t id) {
  PELMAR_RETURN_LOGGED(is_sub(id) ? 1U << id : 0U);
}

void pelmar_update_default_data_sub(int32_t sub) {
  PELMAR_LOG_ENTRY();
  write_int_property(kDefaultDataSub, sub);
  PELMAR_LOG_EXIT();
}

int32_t pelmar_get_default_data_sub(void) {
  PELMAR_RETURN_LOGGED(read_int_property(kDefaultDataSub, 0));
}

void pelmar_update_active_call_sub(int32_t sub) {
  PELMAR_LOG_ENTRY();
  write_int_property(kActiveCallSub, sub);
  PELMAR_LOG_EXIT();
}

int32_t pelmar_get_active_call_sub(void) {
  PELMAR_RETURN_LOGGED(read_int_property(kActiveCallSub, PELMAR_ACTIVE_CALL_SUB_NONE));
}
}
