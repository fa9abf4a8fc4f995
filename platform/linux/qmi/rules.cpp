#include "rules.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "environment.h"
#include "printable_text.h"

namespace pelmar::platform {
namespace {

bool read_rules() {
  constexpr const char* kVariable = "PELMAR_PLATFORM_RULES";
  const std::string rules = environment(kVariable);
  if (rules.empty() || rules == "phone") return !rules.empty();
  ::syslog(LOG_WARNING, "%s=%s is ignored: the only value is 'phone'", kVariable, printable_text(rules).c_str());
  return false;
}

}  // namespace

thread_local constinit const RunningCallback* RunningCallback::innermost_ = nullptr;

const char* RunningCallback::of(const void* owner) {
  const RunningCallback* callback = innermost_;
  while (callback != nullptr && callback->owner_ != owner) callback = callback->outer_;
  return callback == nullptr ? nullptr : callback->what_;
}

bool phone_rules() {
  static const bool has_phone_rules = read_rules();
  return has_phone_rules;
}

void end_blocked_process(uint32_t service, const char* call, const char* callback, const char* remedy) {
  char text[512];
  std::snprintf(text, sizeof text,
                "%s in %s of the same handle (QMI service 0x%02x) would never return on a phone. %s "
                "(PELMAR_PLATFORM_RULES=phone ends the process here.)",
                call, callback, static_cast<unsigned>(service), remedy);
  std::fprintf(stderr, "%s\n", text);
  ::syslog(LOG_CRIT, "%s", text);
  std::abort();
}

}  // namespace pelmar::platform
