// What kind of device this is: yes/no questions to properties, names and numbers.
#include <atomic>
#include <cstring>

#include "pelmar_log_site.h"
#include "pelmar_property_value.h"

namespace pelmar {
namespace {

enum class Test { kFirstCharacterIs, kEquals, kDiffersFrom, kContains };

bool holds(Test test, const char* value, const char* operand) {
  switch (test) {
    case Test::kFirstCharacterIs:
      return value[0] == operand[0];
    case Test::kEquals:
      return std::strcmp(value, operand) == 0;
    case Test::kDiffersFrom:
      return std::strcmp(value, operand) != 0;
    case Test::kContains:
      return std::strstr(value, operand) != nullptr;
  }
  return false;
}

// A yes/no question to one property, and what is logged with the answer.
struct Question {
  const char* function;
  KeptProperty property;
  Test test;
  const char* operand;
  const char* yes;
  const char* no;
};

bool ask(Question& question) {
  PELMAR_LOG_ENTRY_AS(question.function);
  const char* const value = question.property.value();
  const bool answer = holds(question.test, value, question.operand);
  PELMAR_LOG_DEBUG_AS(question.function, "%s, val = %s, ret = %d", answer ? question.yes : question.no, value, answer);
  PELMAR_LOG_EXIT_RET_AS(question.function, answer);
  return answer;
}

constexpr char kNone[] = "NULL";
constexpr char kCertification[] = "ro.cust.test";
constexpr char kProfile[] = "ro.vendor.radio.build_profile";

constinit Question g_factory{"pelmar_is_factory_version", {"ro.boot.factorybuild", ""}, Test::kFirstCharacterIs, "1",
                             "factory version",           "non factory version"};
constinit Question g_ct_cert{"pelmar_is_ct_cert_version", {kCertification, kNone}, Test::kEquals, "ct",
                             "ct test version",           "not ct test version"};
constinit Question g_cm_cert{"pelmar_is_cm_cert_version", {kCertification, kNone}, Test::kEquals, "cm",
                             "cmcc test version",         "not cmcc test version"};
constinit Question g_cu_cert{"pelmar_is_cu_cert_version", {kCertification, kNone}, Test::kEquals, "cu",
                             "cu test version",           "not cu test version"};
constinit Question g_cert{"pelmar_is_cert_version", {kCertification, kNone}, Test::kDiffersFrom, kNone,
                          "cert version",           "non cert version"};
constinit Question g_china{
    "pelmar_is_china_version", {"ro.vendor.radio.build_region", ""}, Test::kEquals, "cn", "china version",
    "not china version"};
constinit Question g_test_build{"pelmar_is_test_build", {"ro.build.tags", "test-keys"},
                                Test::kDiffersFrom,     "release-keys",
                                "test version",         "non test version"};
constinit Question g_native{"pelmar_is_native_version", {kProfile, kNone},   Test::kContains, "native",
                            "native version",           "non native version"};
constinit Question g_factory_ex{
    "pelmar_is_factory_version_ex", {kProfile, kNone}, Test::kContains, "factory", "factory version",
    "non factory version"};
constinit Question g_root{"pelmar_is_root_version", {"ro.debuggable", kNone}, Test::kEquals, "1",
                          "root version",           "non root version"};
constinit Question g_mp{"pelmar_is_mp_version", {"ro.boot.hwlevel", kNone}, Test::kEquals, "MP", "mp version",
                        "non mp version"};
constinit Question g_orbo{"pelmar_is_orbo_version", {"ro.orbo.build.region", kNone},
                          Test::kDiffersFrom,       kNone,
                          "orbo version",           "non orbo version"};

// A number of which only the first call of the process keeps hold: later calls answer 0.
int32_t first_answer(std::atomic<bool>& asked, const char* property) {
  return asked.exchange(true, std::memory_order_relaxed) ? 0 : read_int_property(property, 0);
}

// A text that is read once, with its name in the log.
const char* tell_text(const char* function, const char* name, KeptProperty& property) {
  PELMAR_LOG_ENTRY_AS(function);
  const char* const value = property.value();
  PELMAR_LOG_DEBUG_AS(function, "%s: %s", name, value);
  PELMAR_LOG_EXIT_AS(function);
  return value;
}

constexpr char kManufacturerId[] = "ro.vendor.radio.manufacturer_id";
constexpr char kVendorRegion[] = "persist.vendor.radio.build_region";

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

bool pelmar_is_factory_version(void) {
  return ask(g_factory);
}
bool pelmar_is_ct_cert_version(void) {
  return ask(g_ct_cert);
}
bool pelmar_is_cm_cert_version(void) {
  return ask(g_cm_cert);
}
bool pelmar_is_cu_cert_version(void) {
  return ask(g_cu_cert);
}
bool pelmar_is_cert_version(void) {
  return ask(g_cert);
}
bool pelmar_is_china_version(void) {
  return ask(g_china);
}
bool pelmar_is_test_build(void) {
  return ask(g_test_build);
}
bool pelmar_is_native_version(void) {
  return ask(g_native);
}
bool pelmar_is_factory_version_ex(void) {
  return ask(g_factory_ex);
}
bool pelmar_is_root_version(void) {
  return ask(g_root);
}
bool pelmar_is_mp_version(void) {
  return ask(g_mp);
}
bool pelmar_is_orbo_version(void) {
  return ask(g_orbo);
}

// The one question whose value is not kept, only that it was read: from the second call on the empty string is tested.
bool pelmar_is_user_version(void) {
  static std::atomic<bool> read{false};
  PELMAR_LOG_ENTRY();
  PropertyValue value = {};
  if (!read.exchange(true, std::memory_order_relaxed)) pelmar_get_property_value("ro.build.type", value, "user");
  const bool answer = std::strcmp(value, "user") == 0;
  PELMAR_LOG_DEBUG("%s, val = %s, ret = %d", answer ? "user version" : "non user version", value, answer);
  PELMAR_LOG_EXIT_RET(answer);
  return answer;
}

int32_t pelmar_get_pelmar_manufacturer_id(void) {
  static std::atomic<bool> asked{false};
  PELMAR_RETURN_LOGGED(first_answer(asked, kManufacturerId));
}

int32_t pelmar_get_pelmar_device_type(void) {
  static std::atomic<bool> asked{false};
  PELMAR_RETURN_LOGGED(first_answer(asked, "ro.radio.device_type"));
}

void pelmar_set_pelmar_manufacturer_id(int32_t id) {
  PELMAR_LOG_ENTRY();
  write_int_property(kManufacturerId, id);
  PELMAR_LOG_EXIT();
}

const char* pelmar_device_name_get(void) {
  static KeptProperty device{"ro.product.device", ""};
  return tell_text(__func__, "device_name", device);
}

const char* pelmar_build_region_get(void) {
  static KeptProperty region{"ro.orbo.build.region", kNone};
  return tell_text(__func__, "build_region", region);
}

// A buffer a thread: it is filled anew by every call, while other threads may still read theirs.
const char* pelmar_vendor_build_region_get(void) {
  static thread_local PropertyValue region;
  PELMAR_LOG_ENTRY();
  region[0] = '\0';
  pelmar_get_property_value(kVendorRegion, region, kNone);
  PELMAR_LOG_EXIT();
  return region;
}

bool pelmar_vendor_build_region_is_cfged(void) {
  PELMAR_LOG_ENTRY();
  PropertyValue region = {};
  pelmar_get_property_value(kVendorRegion, region, kNone);
  const bool configured = std::strcmp(region, kNone) != 0;
  PELMAR_LOG_EXIT_RET(configured);
  return configured;
}
}
