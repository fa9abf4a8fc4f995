// Checked access to the platform's properties, and its echo in the log.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cutils/properties.h"
#include "pelmar_log_site.h"
#include "pelmar_property_value.h"

namespace pelmar {
namespace {

enum EchoState : int32_t { kEchoOff = 0, kEchoOn = 1, kEchoUndecided = 2 };

std::atomic<int32_t> g_echo_state{kEchoUndecided};

// A name, cut to the length that is passed to the platform.
struct CutName {
  explicit CutName(const char* name) { std::snprintf(text, sizeof(text), "%s", name); }
  char text[PELMAR_PROPERTY_BUFFER_BYTES];
};

// Reads to a buffer of this library's size, so that the platform never overruns a caller's buffer.
void read_property(const CutName& name, PropertyValue& value, const char* default_value) {
  property_get(name.text, value, default_value);
  value[sizeof(value) - 1] = '\0';
}

// Two threads that decide at once get the same result. This is a part of logging, so it uses no log site.
bool echo_is_on() {
  if (g_echo_state.load(std::memory_order_relaxed) == kEchoUndecided) {
    PropertyValue value = {};
    property_get("persist.vendor.radio.print_prop", value, "1");
    const bool on = std::strcmp(value, "1") == 0;
    g_echo_state.store(on ? kEchoOn : kEchoOff, std::memory_order_relaxed);
    pelmar_utils_syslog_dbg("prop print is %s", on ? "started" : "stoped");
  }
  return g_echo_state.load(std::memory_order_relaxed) == kEchoOn;
}

}  // namespace

int32_t read_int_property(const char* name, int32_t default_value) {
  char default_text[12];
  std::snprintf(default_text, sizeof(default_text), "%d", default_value);
  PropertyValue value = {};
  pelmar_get_property_value(name, value, default_text);
  return std::atoi(value);
}

void write_int_property(const char* name, int32_t value) {
  char text[12];
  std::snprintf(text, sizeof(text), "%d", value);
  pelmar_set_property_value(name, text);
}

}  // namespace pelmar

using namespace pelmar;

bool pelmar_utils_get_prop_print_flag() {
  return echo_is_on();
}

void pelmar_print_property_value(const char* name) {
  if (!echo_is_on()) return;
  if (name == nullptr) {
    PELMAR_LOG_ERROR("property_name is null");
    return;
  }
  const CutName cut_name(name);
  PropertyValue value = {};
  read_property(cut_name, value, "null_val");
  PELMAR_LOG_DEBUG("%s: %s", cut_name.text, value);
}

extern "C" {

void pelmar_get_property_value(const char* name, char* value, const char* default_value) {
  Operation operation(PELMAR_HERE);
  if (name == nullptr) return operation.fail("property_name is null");
  if (value == nullptr) return operation.fail("property_value is null");
  if (default_value == nullptr) return operation.fail("default_property_value is null");
  const CutName cut_name(name);
  PropertyValue text = {};
  read_property(cut_name, text, default_value);
  std::memcpy(value, text, std::strlen(text) + 1);
  if (echo_is_on()) PELMAR_LOG_DEBUG("%s: %s", cut_name.text, value);
}

// Compatibility: a value of exactly 92 bytes is passed to the platform, whose own limit is 91. The platform decides
// what is stored, and the echo shows it.
void pelmar_set_property_value(const char* name, const char* value) {
  Operation operation(PELMAR_HERE);
  if (name == nullptr) return operation.fail("property_name is null");
  if (value == nullptr) return operation.fail("property_value is null");
  if (const size_t length = std::strlen(value); length > PELMAR_PROPERTY_WRITE_MAX_BYTES) {
    PELMAR_LOG_ERROR("property_value len(%u) is out of range(%d)", static_cast<unsigned>(length),
                     PELMAR_PROPERTY_WRITE_MAX_BYTES);
    return;
  }
  property_set(CutName(name).text, value);
  pelmar_print_property_value(name);
}

void pelmar_set_property_value_to_int(const char* name, int32_t value) {
  Operation operation(PELMAR_HERE);
  write_int_property(name, value);
}

int32_t pelmar_get_property_value_from_int(const char* name, int32_t* value, int32_t default_value) {
  Operation operation(PELMAR_HERE);
  if (name == nullptr) return operation.fail(default_value, "property_name is null");
  if (value == nullptr) return operation.fail(default_value, "property_value is null");
  *value = read_int_property(name, default_value);
  return operation.exit(*value);
}
}
