#include "time_text.h"

#include <cstdio>
#include <ctime>

namespace pelmar::cli {

namespace {

// Whole seconds since the epoch, and the milliseconds beyond them.
struct Parts {
  time_t seconds;
  int milliseconds;
};

Parts split(WallClock::time_point time) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  return {static_cast<time_t>(ms / 1000), static_cast<int>(ms % 1000)};
}

}  // namespace

std::string local_text(WallClock::time_point time) {
  const Parts parts = split(time);
  tm local{};
  localtime_r(&parts.seconds, &local);
  char text[64];
  snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec, parts.milliseconds);
  return text;
}

std::string utc_text(WallClock::time_point time) {
  const Parts parts = split(time);
  tm utc{};
  gmtime_r(&parts.seconds, &utc);
  char text[128];
  snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
           utc.tm_hour, utc.tm_min, utc.tm_sec, parts.milliseconds);
  return text;
}

std::optional<WallClock::time_point> parse_utc_text(const std::string& text) {
  tm utc{};
  int milliseconds = 0;
  int length = 0;
  const int fields = sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3dZ%n", &utc.tm_year, &utc.tm_mon, &utc.tm_mday,
                            &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &milliseconds, &length);
  if (fields != 7 || static_cast<size_t>(length) != text.size()) return std::nullopt;
  utc.tm_year -= 1900;
  utc.tm_mon -= 1;
  const auto time = WallClock::from_time_t(timegm(&utc)) + std::chrono::milliseconds(milliseconds);
  if (utc_text(time) != text) return std::nullopt;  // a field was out of its range
  return time;
}

}  // namespace pelmar::cli
