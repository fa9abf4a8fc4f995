// The device's identity in its properties: traits of the build, names and numbers.
#include <atomic>
#include <cstring>

#include "pelmar_log_site.h"
#include "pelmar_property_value.h"

namespace pelmar {
namespace {

enum Test { kFirstCharacterIs, kEquals, kDiffersFrom, kContains };

// A yes-or-no property of the build: one system property compared with an operand. The log line names the result:
// "factory version" or "non factory version".
struct BuildTrait {
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

constexpr BuildTrait kFactory{"ro.boot.factorybuild", "", kFirstCharacterIs, "1", "factory", "non"};
constexpr BuildTrait kCtCert{kCert, kNone, kEquals, "ct", "ct test", "not"};
constexpr BuildTrait kCmCert{kCert, kNone, kEquals, "cm", "cmcc test", "not"};
constexpr BuildTrait kCuCert{kCert, kNone, kEquals, "cu", "cu test", "not"};
constexpr BuildTrait kAnyCert{kCert, kNone, kDiffersFrom, kNone, "cert", "non"};
constexpr BuildTrait kChina{"ro.vendor.radio.build_region", "", kEquals, "cn", "china", "not"};
constexpr BuildTrait kTest{"ro.build.tags", "test-keys", kDiffersFrom, "release-keys", "test", "non"};
constexpr BuildTrait kNative{kProfile, kNone, kContains, "native", "native", "non"};
constexpr BuildTrait kFactoryEx{kProfile, kNone, kContains, "factory", "factory", "non"};
constexpr BuildTrait kRoot{"ro.debuggable", kNone, kEquals, "1", "root", "non"};
constexpr BuildTrait kMp{"ro.boot.hwlevel", kNone, kEquals, "MP", "mp", "non"};
constexpr BuildTrait kOrbo{kRegion, kNone, kDiffersFrom, kNone, "orbo", "non"};
constexpr BuildTrait kUser{"ro.build.type", "user", kEquals, "user", "user", "non"};

bool holds(Test test, const char* value, const char* operand) {
  switch (test) {
    case kFirstCharacterIs:
      return value[0] == operand[0];
    case kEquals:
      return std::strcmp(value, operand) == 0;
    case kDiffersFrom:
      return std::strcmp(value, operand) != 0;
    case kContains:
      break;
  }
  return std::strstr(value, operand) != nullptr;
}

bool log_outcome(Operation& operation, const BuildTrait& trait, const char* value) {
  const bool yes = holds(trait.test, value, trait.operand);
  PELMAR_LOG_DEBUG_IN(operation, "%s%s%s version, val = %s, ret = %d", yes ? "" : trait.negation, yes ? "" : " ",
                      trait.subject, value, yes);
  return operation.exit(yes, operation.here().line);
}

// The exported operation at `here`. Each trait keeps a value of its own, even if another trait reads the same property.
template <const BuildTrait& trait>
bool check(const log::Place& here) {
  static constinit KeptProperty property{trait.property, trait.default_value};
  Operation operation(here);
  return log_outcome(operation, trait, property.value());
}

// Reads a number in the first call of a process, and returns 0 in every later one.
int32_t read_once(const log::Place& here, std::atomic<bool>& has_read, const char* property) {
  Operation operation(here);
  const bool is_first = !has_read.exchange(true, std::memory_order_relaxed);
  return operation.exit(is_first ? read_int_property(property, 0) : 0, here.line);
}

constexpr char kManufacturerId[] = "ro.vendor.radio.manufacturer_id";
constexpr char kVendorRegion[] = "persist.vendor.radio.build_region";

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

bool pelmar_is_factory_version(void) {
  return check<kFactory>(PELMAR_HERE);
}
bool pelmar_is_ct_cert_version(void) {
  return check<kCtCert>(PELMAR_HERE);
}
bool pelmar_is_cm_cert_version(void) {
  return check<kCmCert>(PELMAR_HERE);
}
bool pelmar_is_cu_cert_version(void) {
  return check<kCuCert>(PELMAR_HERE);
}
bool pelmar_is_cert_version(void) {
  return check<kAnyCert>(PELMAR_HERE);
}
bool pelmar_is_china_version(void) {
  return check<kChina>(PELMAR_HERE);
}
bool pelmar_is_test_build(void) {
  return check<kTest>(PELMAR_HERE);
}
bool pelmar_is_native_version(void) {
  return check<kNative>(PELMAR_HERE);
}
bool pelmar_is_factory_version_ex(void) {
  return check<kFactoryEx>(PELMAR_HERE);
}
bool pelmar_is_root_version(void) {
  return check<kRoot>(PELMAR_HERE);
}
bool pelmar_is_mp_version(void) {
  return check<kMp>(PELMAR_HERE);
}
bool pelmar_is_orbo_version(void) {
  return check<kOrbo>(PELMAR_HERE);
}

// Compatibility: only the first call reads the property; every later call tests the empty string.
bool pelmar_is_user_version(void) {
  static std::atomic<bool> read{false};
  Operation operation(PELMAR_HERE);
  PropertyValue value = {};
  if (!read.exchange(true, std::memory_order_relaxed)) {
    pelmar_get_property_value(kUser.property, value, kUser.default_value);
  }
  return log_outcome(operation, kUser, value);
}

// Compatibility: only the first call of a process reads the number; every later call returns 0.
int32_t pelmar_get_pelmar_manufacturer_id(void) {
  static std::atomic<bool> has_read{false};
  return read_once(PELMAR_HERE, has_read, kManufacturerId);
}

// Compatibility: only the first call of a process reads the number, as above.
int32_t pelmar_get_pelmar_device_type(void) {
  static std::atomic<bool> has_read{false};
  return read_once(PELMAR_HERE, has_read, "ro.radio.device_type");
}

void pelmar_set_pelmar_manufacturer_id(int32_t id) {
  Operation operation(PELMAR_HERE);
  write_int_property(kManufacturerId, id);
}

const char* pelmar_device_name_get(void) {
  static constinit KeptProperty device{"ro.product.device", ""};
  Operation operation(PELMAR_HERE);
  PELMAR_LOG_DEBUG("device_name: %s", device.value());
  return device.value();
}

const char* pelmar_build_region_get(void) {
  static constinit KeptProperty region{kRegion, kNone};
  Operation operation(PELMAR_HERE);
  PELMAR_LOG_DEBUG("build_region: %s", region.value());
  return region.value();
}

// Each thread has its own buffer, because every call overwrites it while other threads may still read theirs.
const char* pelmar_vendor_build_region_get(void) {
  static thread_local PropertyValue region;
  Operation operation(PELMAR_HERE);
  region[0] = '\0';
  pelmar_get_property_value(kVendorRegion, region, kNone);
  return region;
}

bool pelmar_vendor_build_region_is_cfged(void) {
  Operation operation(PELMAR_HERE);
  PropertyValue region = {};
  pelmar_get_property_value(kVendorRegion, region, kNone);
  return operation.exit(std::strcmp(region, kNone) != 0);
}
}
