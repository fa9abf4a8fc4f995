// Whether a configuration list names this device, its region, its build type, a string or a number.
#include <cstring>
#include <type_traits>

#include "pelmar_log_site.h"
#include "pelmar_property.h"

namespace pelmar {
namespace {

// The lists of every width; `type` is the width's name in the messages. No width is beyond long on this processor.
static_assert(sizeof(long) == sizeof(int64_t));
template <typename Element>
bool find_number(const Operation& operation, const char* type, const Element* list, uint32_t count, long value) {
  if (list == nullptr) {
    PELMAR_LOG_ERROR_IN(operation, "num_list[%s] is NULL", type);
    return false;
  }
  if (count == 0) {
    PELMAR_LOG_ERROR_IN(operation, "size_list[%s](%u) can not <= 0", type, count);
    return false;
  }
  for (uint32_t i = 0; i < count; ++i) {
    if (static_cast<std::make_signed_t<Element>>(list[i]) == value) {
      PELMAR_LOG_DEBUG_IN(operation, "find number[%s]: %ld, size_list(%u)", type, value, count);
      return true;
    }
  }
  PELMAR_LOG_ERROR_IN(operation, "not find number[%s]: %ld, size_list(%u)", type, value, count);
  return false;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

bool pelmar_string_list_contain(const char* const* list, uint32_t count, const char* str) {
  Operation operation(PELMAR_HERE);
  if (str == nullptr) {
    PELMAR_LOG_ERROR("str is NULL");
    return operation.exit(false);
  }
  if (list == nullptr) {
    PELMAR_LOG_ERROR("str_list is NULL");
    return operation.exit(false);
  }
  if (count == 0) {
    PELMAR_LOG_ERROR("size_list(%u) can not <= 0", count);
    return operation.exit(false);
  }
  for (uint32_t i = 0; i < count; ++i) {
    if (list[i] != nullptr && std::strstr(str, list[i]) != nullptr) {
      PELMAR_LOG_DEBUG("find str: %s, size_list(%u)", str, count);
      return operation.exit(true);
    }
  }
  PELMAR_LOG_ERROR("not find str: %s, size_list(%u)", str, count);
  return operation.exit(false);
}

// The words that stand for all match like any text: an entry that is a part of the word is enough.
bool pelmar_device_name_list_contain(const char* const* list, uint32_t count) {
  Operation operation(PELMAR_HERE);
  return operation.exit(pelmar_string_list_contain(list, count, "all_product") ||
                        pelmar_string_list_contain(list, count, pelmar_device_name_get()));
}

bool pelmar_build_region_list_contain(const char* const* list, uint32_t count) {
  Operation operation(PELMAR_HERE);
  return operation.exit(pelmar_string_list_contain(list, count, "all_region") ||
                        pelmar_string_list_contain(list, count, pelmar_build_region_get()));
}

bool pelmar_build_type_list_contain(const int8_t* list, uint32_t count) {
  Operation operation(PELMAR_HERE);
  const auto* const elements = reinterpret_cast<const uint8_t*>(list);
  return operation.exit(pelmar_int8_list_contain(elements, count, PELMAR_BUILD_TYPE_ALL) ||
                        pelmar_int8_list_contain(elements, count, static_cast<int8_t>(pelmar_build_type_get())));
}

bool pelmar_int8_list_contain(const uint8_t* list, uint32_t count, int8_t value) {
  Operation operation(PELMAR_HERE);
  return operation.exit(find_number(operation, "int8", list, count, value));
}

bool pelmar_int16_list_contain(const uint16_t* list, uint32_t count, int16_t value) {
  Operation operation(PELMAR_HERE);
  return operation.exit(find_number(operation, "int16", list, count, value));
}

bool pelmar_int32_list_contain(const uint32_t* list, uint32_t count, int32_t value) {
  Operation operation(PELMAR_HERE);
  return operation.exit(find_number(operation, "int32", list, count, value));
}

bool pelmar_int64_list_contain(const uint64_t* list, uint32_t count, int64_t value) {
  Operation operation(PELMAR_HERE);
  return operation.exit(find_number(operation, "int64", list, count, value));
}
}
