// What kind of device this is: yes/no questions to properties, names and numbers.
#include <atomic>
#include <cstring>

#include "pelmar_log_site.h"
#include "pelmar_property_value.h"

namespace pelmar {
namespace {

enum Test { kFirstCharacterIs, kEquals, kDiffersFrom, kContains };

// A yes/no question to one property, and the words that tell the answer: "factory version" or "non factory version".
struct Question {
  const char* function;
  const char* property;
  const char* default_value;
  Test test;
  const char* operand;
  const char* subject;
  const char* negation;
};

constexpr char kNone[] = "NULL";
constexpr char kCert[] = "ro.cust.test";
constexpr char kRegion[] = "ro.orbo.build.region";
constexpr char kProfile[] = "ro.vendor.radio.build_profile";

constexpr Question kFactory{
    "pelmar_is_factory_version", "ro.boot.factorybuild", "", kFirstCharacterIs, "1", "factory", "non"};
constexpr Question kCtCert{"pelmar_is_ct_cert_version", kCert, kNone, kEquals, "ct", "ct test", "not"};
constexpr Question kCmCert{"pelmar_is_cm_cert_version", kCert, kNone, kEquals, "cm", "cmcc test", "not"};
constexpr Question kCuCert{"pelmar_is_cu_cert_version", kCert, kNone, kEquals, "cu", "cu test", "not"};
constexpr Question kAnyCert{"pelmar_is_cert_version", kCert, kNone, kDiffersFrom, kNone, "cert", "non"};
constexpr Question kChina{"pelmar_is_china_version", "ro.vendor.radio.build_region", "", kEquals, "cn", "china", "not"};
constexpr Question kTest{"pelmar_is_test_build", "ro.build.tags", "test-keys", kDiffersFrom,
                         "release-keys",         "test",          "non"};
constexpr Question kNative{"pelmar_is_native_version", kProfile, kNone, kContains, "native", "native", "non"};
constexpr Question kFactoryEx{"pelmar_is_factory_version_ex", kProfile, kNone, kContains, "factory", "factory", "non"};
constexpr Question kRoot{"pelmar_is_root_version", "ro.debuggable", kNone, kEquals, "1", "root", "non"};
constexpr Question kMp{"pelmar_is_mp_version", "ro.boot.hwlevel", kNone, kEquals, "MP", "mp", "non"};
constexpr Question kOrbo{"pelmar_is_orbo_version", kRegion, kNone, kDiffersFrom, kNone, "orbo", "non"};
constexpr Question kUser{"pelmar_is_user_version", "ro.build.type", "user", kEquals, "user", "user", "non"};

bool holds(Test test, const char* value, const char* operand) {
  switch (test) {
    case kFirstCharacterIs:
      return value[0] == operand[0];
    case kEquals:
      return std::strcmp(value, operand) == 0;
    case kDiffersFrom:
      return std::strcmp(value, operand) != 0;
    case kContains:
      return std::strstr(value, operand) != nullptr;
  }
  return false;
}

bool answer(const Question& question, const char* value) {
  const bool yes = holds(question.test, value, question.operand);
  PELMAR_LOG_DEBUG_AS(question.function, "%s%s%s version, val = %s, ret = %d", yes ? "" : question.negation,
                      yes ? "" : " ", question.subject, value, yes);
  PELMAR_LOG_EXIT_RET_AS(question.function, yes);
  return yes;
}

// Each question keeps a value of its own, also where several ask one property.
template <const Question& question>
bool ask() {
  static constinit KeptProperty property{question.property, question.default_value};
  PELMAR_LOG_ENTRY_AS(question.function);
  return answer(question, property.value());
}

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
  return ask<kFactory>();
}
bool pelmar_is_ct_cert_version(void) {
  return ask<kCtCert>();
}
bool pelmar_is_cm_cert_version(void) {
  return ask<kCmCert>();
}
bool pelmar_is_cu_cert_version(void) {
  return ask<kCuCert>();
}
bool pelmar_is_cert_version(void) {
  return ask<kAnyCert>();
}
bool pelmar_is_china_version(void) {
  return ask<kChina>();
}
bool pelmar_is_test_build(void) {
  return ask<kTest>();
}
bool pelmar_is_native_version(void) {
  return ask<kNative>();
}
bool pelmar_is_factory_version_ex(void) {
  return ask<kFactoryEx>();
}
bool pelmar_is_root_version(void) {
  return ask<kRoot>();
}
bool pelmar_is_mp_version(void) {
  return ask<kMp>();
}
bool pelmar_is_orbo_version(void) {
  return ask<kOrbo>();
}

// The one question whose value is not kept, only that it was read: from the second call on the empty string is tested.
bool pelmar_is_user_version(void) {
  static std::atomic<bool> read{false};
  PELMAR_LOG_ENTRY();
  PropertyValue value = {};
  if (!read.exchange(true, std::memory_order_relaxed)) {
    pelmar_get_property_value(kUser.property, value, kUser.default_value);
  }
  return answer(kUser, value);
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
  static constinit KeptProperty device{"ro.product.device", ""};
  return tell_text(__func__, "device_name", device);
}

const char* pelmar_build_region_get(void) {
  static constinit KeptProperty region{kRegion, kNone};
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
