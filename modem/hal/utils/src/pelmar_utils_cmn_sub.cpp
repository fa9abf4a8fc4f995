// Subscriptions: ids, masks, and the ones that carry data and calls.
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
  Operation operation(PELMAR_HERE);
  PropertyValue config = {};
  pelmar_get_property_value("persist.radio.multisim.config", config, "dsds");
  const bool single = std::strcmp(config, "ssss") == 0;
  PELMAR_LOG_DEBUG("%s", single ? "single sim version" : "non single sim version");
  return operation.exit(single);
}

bool pelmar_check_sub_mask(int32_t mask) {
  Operation operation(PELMAR_HERE);
  return operation.exit(mask >= 1 && mask <= 3);
}

bool pelmar_check_sub_id(uint32_t id) {
  Operation operation(PELMAR_HERE);
  return operation.exit(is_sub(id));
}

uint32_t pelmar_get_sub_mask_by_id(uint32_t id) {
  Operation operation(PELMAR_HERE);
  return operation.exit(is_sub(id) ? 1U << id : 0U);
}

void pelmar_update_default_data_sub(int32_t sub) {
  Operation operation(PELMAR_HERE);
  write_int_property(kDefaultDataSub, sub);
}

int32_t pelmar_get_default_data_sub(void) {
  Operation operation(PELMAR_HERE);
  return operation.exit(read_int_property(kDefaultDataSub, 0));
}

void pelmar_update_active_call_sub(int32_t sub) {
  Operation operation(PELMAR_HERE);
  write_int_property(kActiveCallSub, sub);
}

int32_t pelmar_get_active_call_sub(void) {
  Operation operation(PELMAR_HERE);
  return operation.exit(read_int_property(kActiveCallSub, PELMAR_ACTIVE_CALL_SUB_NONE));
}
}
