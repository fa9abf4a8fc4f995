#include "captured_syslog.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

std::mutex g_mutex;
std::string g_log;

}  // namespace

std::string pelmar::platform::logged() {
  const std::lock_guard lock(g_mutex);
  return g_log;
}

// Stands in front of the C library's.
extern "C" [[gnu::visibility("default"), gnu::format(printf, 2, 3)]] void syslog(int /*priority*/, const char* format,
                                                                                 ...) {
  char line[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  const std::lock_guard lock(g_mutex);
  g_log += line;
}
