// Whether a configuration list contains this device, its region, its build type, a string or a number.
#include <algorithm>
#include <cstring>
#include <type_traits>

#include "pelmar_log_site.h"
#include "pelmar_property.h"

namespace pelmar {
namespace {

// The exported operation at `here`, for lists of every width; `type` is the width's name in the messages. No width
// exceeds long on this processor.
static_assert(sizeof(long) == sizeof(int64_t));
template <typename Element>
bool find_number(const log::Place& here, const char* type, const Element* list, uint32_t count, long value) {
  Operation operation(here);
  bool is_found = false;
  if (list == nullptr) {
    PELMAR_LOG_ERROR_AT(here, "num_list[%s] is NULL", type);
  } else if (count == 0) {
    PELMAR_LOG_ERROR_AT(here, "size_list[%s](%u) can not <= 0", type, count);
  } else {
    const auto is_value = [&](Element element) { return static_cast<std::make_signed_t<Element>>(element) == value; };
    is_found = std::any_of(list, list + count, is_value);
    if (is_found) {
      PELMAR_LOG_DEBUG_AT(here, "find number[%s]: %ld, size_list(%u)", type, value, count);
    } else {
      PELMAR_LOG_ERROR_AT(here, "not find number[%s]: %ld, size_list(%u)", type, value, count);
    }
  }
  return operation.exit(is_found, here.line);
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

bool pelmar_string_list_contain(const char* const* list, uint32_t count, const char* str) {
  Operation operation(PELMAR_HERE);
  if (str == nullptr) return operation.fail(false, "str is NULL");
  if (list == nullptr) return operation.fail(false, "str_list is NULL");
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

// The words for "all" match like any text: an entry that is a part of the word is enough.
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
  return find_number(PELMAR_HERE, "int8", list, count, value);
}

bool pelmar_int16_list_contain(const uint16_t* list, uint32_t count, int16_t value) {
  return find_number(PELMAR_HERE, "int16", list, count, value);
}

bool pelmar_int32_list_contain(const uint32_t* list, uint32_t count, int32_t value) {
  return find_number(PELMAR_HERE, "int32", list, count, value);
}

bool pelmar_int64_list_contain(const uint64_t* list, uint32_t count, int64_t value) {
  return find_number(PELMAR_HERE, "int64", list, count, value);
}
}
