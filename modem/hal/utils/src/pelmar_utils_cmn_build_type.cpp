// Which type of build the device runs.
#include <atomic>
#include <cstring>

#include "pelmar_log_site.h"
#include "pelmar_property_value.h"

namespace pelmar {
namespace {

constinit KeptProperty g_profile{"ro.vendor.radio.build_profile", "NULL"};
constinit KeptProperty g_version{"ro.build.version.incremental", ""};

// Certification outranks what the profile says, and "orbo" means a release only with a version that begins with 'V'.
int32_t build_type() {
  constexpr const char* kFunction = "pelmar_build_type_get";
  const char* const profile = g_profile.value();
  const char* const version = g_version.value();
  const auto profile_has = [profile](const char* word) { return std::strstr(profile, word) != nullptr; };
  const auto found = [=](const char* name, int32_t type) {
    PELMAR_LOG_DEBUG_AS(kFunction, "PELMAR_BUILD_TYPE_%s(%d), BUILD_PROFILE(%s)", name, type, profile);
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
  PELMAR_LOG_DEBUG_AS(kFunction, "build_type(%d), BUILD_PROFILE(%s), BUILD_VERSION(%s)", PELMAR_BUILD_TYPE_PRE, profile,
                      version);
  return PELMAR_BUILD_TYPE_PRE;
}

// Whether the build is of one type, decided by the first question. Two threads that decide at once decide the same.
class KeptComparison {
 public:
  constexpr explicit KeptComparison(int32_t type) : type_(type) {}

  bool holds() {
    if (answer_.load(std::memory_order_relaxed) == kUndecided) {
      answer_.store(pelmar_build_type_get() == type_ ? kYes : kNo, std::memory_order_relaxed);
    }
    return answer_.load(std::memory_order_relaxed) == kYes;
  }

 private:
  enum Answer : int8_t { kUndecided, kYes, kNo };
  const int32_t type_;
  std::atomic<Answer> answer_{kUndecided};
};

bool tell(const char* function, const char* name, KeptComparison& comparison) {
  PELMAR_LOG_ENTRY_AS(function);
  const bool answer = comparison.holds();
  PELMAR_LOG_DEBUG_AS(function, "%s%s version, ret = %d", answer ? "" : "non ", name, answer);
  PELMAR_LOG_EXIT_RET_AS(function, answer);
  return answer;
}

constinit KeptComparison g_pre{PELMAR_BUILD_TYPE_PRE};
constinit KeptComparison g_dev{PELMAR_BUILD_TYPE_DEV};
constinit KeptComparison g_stable{PELMAR_BUILD_TYPE_STABLE};

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

int32_t pelmar_build_type_get(void) {
  PELMAR_RETURN_LOGGED(build_type());
}

bool pelmar_is_pre_version(void) {
  return tell(__func__, "pre", g_pre);
}
bool pelmar_is_dev_version(void) {
  return tell(__func__, "dev", g_dev);
}
bool pelmar_is_stable_version(void) {
  return tell(__func__, "stable", g_stable);
}
}
