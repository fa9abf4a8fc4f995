// The type of the device's build.
#include <atomic>
#include <cstring>

#include "pelmar_log_site.h"
#include "pelmar_property_value.h"

namespace pelmar {
namespace {

constinit KeptProperty g_profile{"ro.vendor.radio.build_profile", "NULL"};
constinit KeptProperty g_version{"ro.build.version.incremental", ""};

// A certification build has precedence over the profile. "orbo" is a release only if the version begins with 'V'.
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

// The kept result of a comparison with the build's type; kUndecided before the first call.
enum Comparison : int8_t { kUndecided, kHolds, kFails };

// The exported operation at `here`. Its first call compares the build's type and keeps the result; two threads that
// compare at once get the same result.
bool check(const log::Place& here, const char* name, int32_t type, std::atomic<Comparison>& kept) {
  Operation operation(here);
  if (kept.load(std::memory_order_relaxed) == kUndecided) {
    kept.store(pelmar_build_type_get() == type ? kHolds : kFails, std::memory_order_relaxed);
  }
  const bool holds = kept.load(std::memory_order_relaxed) == kHolds;
  PELMAR_LOG_DEBUG_IN(operation, "%s%s version, ret = %d", holds ? "" : "non ", name, holds);
  return operation.exit(holds, here.line);
}

constinit std::atomic<Comparison> g_pre{kUndecided};
constinit std::atomic<Comparison> g_dev{kUndecided};
constinit std::atomic<Comparison> g_stable{kUndecided};

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

int32_t pelmar_build_type_get(void) {
  Operation operation(PELMAR_HERE);
  return operation.exit(build_type(operation));
}

bool pelmar_is_pre_version(void) {
  return check(PELMAR_HERE, "pre", PELMAR_BUILD_TYPE_PRE, g_pre);
}
bool pelmar_is_dev_version(void) {
  return check(PELMAR_HERE, "dev", PELMAR_BUILD_TYPE_DEV, g_dev);
}
bool pelmar_is_stable_version(void) {
  return check(PELMAR_HERE, "stable", PELMAR_BUILD_TYPE_STABLE, g_stable);
}
}
