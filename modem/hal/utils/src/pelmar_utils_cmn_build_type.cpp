// Which type of build the device runs.
#include <atomic>
#include <cstring>

#include "pelmar_log_site.h"
#include "pelmar_property_value.h"

namespace pelmar {
namespace {

constinit KeptProperty g_profile{"ro.vendor.radio.build_profile", "NULL"};
constinit KeptProperty g_version{"ro.build.version.incremental", ""};

// Certification outranks the profile, and "orbo" means a release only with a version that begins with 'V'.
int32_t build_type(const Operation& operation) {
  const char* const profile = g_profile.value();
  const char* const version = g_version.value();
  const auto profile_has = [profile](const char* word) { return std::strstr(profile, word) != nullptr; };
  const auto found = [&](const char* name, int32_t type) {
    PELMAR_LOG_DEBUG_IN(operation, "PELMAR_BUILD_TYPE_%s(%d), BUILD_PROFILE(%s)", name, type, profile);
    return type;
  };

  if (pelmar_is_cert_version()) return found("CERT", PELMAR_BUILD_TYPE_CERT);
  if (profile_has("factory")) return found("FACTORY", PELMAR_BUILD_TYPE_FACTORY);
  if (profile_has("native")) return found("NATIVE", PELMAR_BUILD_TYPE_NATIVE);
  if (profile_has("orbo")) {
    if (version[0] == 'V') {
      const bool development = std::strstr(version, ".DEV") != nullptr;
      return development ? found("DEV", PELMAR_BUILD_TYPE_DEV) : found("STABLE", PELMAR_BUILD_TYPE_STABLE);
    }
    found("PRE", PELMAR_BUILD_TYPE_PRE);
  }
  PELMAR_LOG_DEBUG_IN(operation, "build_type(%d), BUILD_PROFILE(%s), BUILD_VERSION(%s)", PELMAR_BUILD_TYPE_PRE, profile,
                      version);
  return PELMAR_BUILD_TYPE_PRE;
}

// Whether the build is of one type, decided by the first call. Two threads that decide at once decide the same.
class KeptComparison {
 public:
  constexpr explicit KeptComparison(int32_t type) : type_(type) {}

  bool holds() {
    if (state_.load(std::memory_order_relaxed) == kUndecided) {
      state_.store(pelmar_build_type_get() == type_ ? kHolds : kFails, std::memory_order_relaxed);
    }
    return state_.load(std::memory_order_relaxed) == kHolds;
  }

 private:
  enum State : int8_t { kUndecided, kHolds, kFails };
  const int32_t type_;
  std::atomic<State> state_{kUndecided};
};

bool check(const Operation& operation, const char* name, KeptComparison& comparison) {
  const bool holds = comparison.holds();
  PELMAR_LOG_DEBUG_IN(operation, "%s%s version, ret = %d", holds ? "" : "non ", name, holds);
  return holds;
}

constinit KeptComparison g_pre{PELMAR_BUILD_TYPE_PRE};
constinit KeptComparison g_dev{PELMAR_BUILD_TYPE_DEV};
constinit KeptComparison g_stable{PELMAR_BUILD_TYPE_STABLE};

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

int32_t pelmar_build_type_get(void) {
  Operation operation(PELMAR_HERE);
  return operation.exit(build_type(operation));
}

bool pelmar_is_pre_version(void) {
  Operation operation(PELMAR_HERE);
  return operation.exit(check(operation, "pre", g_pre));
}
bool pelmar_is_dev_version(void) {
  Operation operation(PELMAR_HERE);
  return operation.exit(check(operation, "dev", g_dev));
}
bool pelmar_is_stable_version(void) {
  Operation operation(PELMAR_HERE);
  return operation.exit(check(operation, "stable", g_stable));
}
}
