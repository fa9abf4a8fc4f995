// The two sinks and their masks.
//
// There is no log site in this file, because log sites call its functions: the masks' messages go to the system log
// without a prefix or a mask test.

// Fortified headers replace vsyslog by a checked variant of another name, which the platform does not define.
#undef _FORTIFY_SOURCE

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cutils/properties.h"
#include "pelmar_log_site.h"

uint32_t g_pelmar_qcril_ril_process_instance_id = PELMAR_RIL_INSTANCE_UNKNOWN;

namespace pelmar::log {

constinit PrintMask g_logcat_print_mask;
constinit PrintMask g_shell_print_mask;

namespace {

struct Sink {
  PrintMask& mask;
  const char* name;
  const char* property;
  const char* variable;
  // Compatibility: the mask's name in the lines of merge, add and set; remove and close always log `variable`.
  const char* changed_as;
};

constexpr Sink kLogcat{g_logcat_print_mask, "logcat", "persist.vendor.radio.adb_log_ka", "g_pelmar_logcat_print_mask",
                       "pelmar_hal_set_logcat_print_mask"};
constexpr Sink kShell{g_shell_print_mask, "shell", "persist.vendor.radio.adb_log_shell", "g_pelmar_shell_print_mask",
                      "g_pelmar_shell_print_mask"};

constexpr char kAllLevelsText[] = "65535";

uint32_t levels_of(const Sink& sink) {
  return sink.mask.levels.load(std::memory_order_relaxed);
}

// Logs a mask, changes it and logs it again. The change is one atomic step, so that no other thread's change is lost.
template <typename Change>
void change_mask(const Sink& sink, const char* verb, const char* called, const char* operand_name, uint32_t operand,
                 Change change) {
  pelmar_utils_syslog_dbg("%s, old %s 0x%x, %s 0x%x", verb, called, levels_of(sink), operand_name, operand);
  change(sink.mask.levels);
  pelmar_utils_syslog_dbg("new %s 0x%x", called, levels_of(sink));
}

using Levels = std::atomic<uint32_t>;

void merge_mask(const Sink& sink, uint32_t mask) {
  change_mask(sink, "merge", sink.changed_as, "merge_mask", mask,
              [mask](Levels& levels) { levels.fetch_and(mask, std::memory_order_relaxed); });
}

void add_mask(const Sink& sink, uint32_t mask) {
  change_mask(sink, "add", sink.changed_as, "add_mask", mask,
              [mask](Levels& levels) { levels.fetch_or(mask, std::memory_order_relaxed); });
}

void remove_mask(const Sink& sink, uint32_t mask) {
  change_mask(sink, "remove", sink.variable, "rm_mask", mask,
              [mask](Levels& levels) { levels.fetch_and(~mask, std::memory_order_relaxed); });
}

void set_mask(const Sink& sink, uint32_t mask) {
  change_mask(sink, "set", sink.changed_as, "dst_mask", mask,
              [mask](Levels& levels) { levels.store(mask, std::memory_order_relaxed); });
}

void close(const Sink& sink) {
  pelmar_utils_syslog_dbg("close, %s 0x%x", sink.variable, levels_of(sink));
  sink.mask.levels.store(0, std::memory_order_relaxed);
}

// Sets `loaded` first, because functions that the merge calls may log. Two threads may merge at once, because both AND
// the mask with the same value.
void load_mask(const Sink& sink) {
  sink.mask.loaded.store(true, std::memory_order_relaxed);
  char value[256] = {};
  property_get(sink.property, value, kAllLevelsText);
  merge_mask(sink, static_cast<uint32_t>(std::atoi(value)));
  const uint32_t levels = levels_of(sink);
  pelmar_utils_syslog_dbg("%s print is %s, %s 0x%x", sink.name, levels != 0 ? "started" : "stoped", sink.variable,
                          levels);
}

bool passes(const Sink& sink, int32_t level) {
  if (!sink.mask.loaded.load(std::memory_order_relaxed)) load_mask(sink);
  return sink.mask.passes(level);
}

}  // namespace

void write_entry(const Place& place) {
  write_line(kDebug, place, PELMAR_LOG_FORMATS("function entry ------------->"));
}

void write_exit(const Place& place) {
  write_line(kDebug, place, PELMAR_LOG_FORMATS("function exit <-------------"));
}

void write_exit_result(const Place& place, int result) {
  write_line(kDebug, place, PELMAR_LOG_FORMATS("function exit, ret(%d) <-------------"), result);
}

void write_text(Level level, const Place& place, const char* text) {
  if (may_pass(level)) write_line(level, place, PELMAR_LOG_FORMATS("%s"), text);
}

}  // namespace pelmar::log

using namespace pelmar::log;

extern "C" {

void pelmar_utils_syslog_err(const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  vsyslog(LOG_ERR, fmt, arguments);
  va_end(arguments);
}

void pelmar_utils_syslog_dbg(const char* fmt, ...) {
  va_list arguments;
  va_start(arguments, fmt);
  vsyslog(LOG_DEBUG, fmt, arguments);
  va_end(arguments);
}

int32_t pelmar_utils_format_log_msg(char* buf, int32_t size, const char* fmt, ...) {
  if (buf == nullptr || size < 1) return 0;
  va_list arguments;
  va_start(arguments, fmt);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is right above
  const int32_t length = std::vsnprintf(buf, static_cast<size_t>(size), fmt, arguments);
  va_end(arguments);
  return length;
}

bool pelmar_hal_get_logcat_print_flag(int32_t level) {
  return passes(kLogcat, level);
}
bool pelmar_hal_get_shell_print_flag(int32_t level) {
  return passes(kShell, level);
}

void pelmar_hal_merge_logcat_print_mask(uint32_t mask) {
  merge_mask(kLogcat, mask);
}
void pelmar_hal_add_logcat_print_mask(uint32_t mask) {
  add_mask(kLogcat, mask);
}
void pelmar_hal_remove_logcat_print_mask(uint32_t mask) {
  remove_mask(kLogcat, mask);
}
void pelmar_hal_set_logcat_print_mask(uint32_t mask) {
  set_mask(kLogcat, mask);
}
void pelmar_utils_close_logcat_print(void) {
  close(kLogcat);
}

void pelmar_hal_merge_shell_print_mask(uint32_t mask) {
  merge_mask(kShell, mask);
}
void pelmar_hal_add_shell_print_mask(uint32_t mask) {
  add_mask(kShell, mask);
}
void pelmar_hal_remove_shell_print_mask(uint32_t mask) {
  remove_mask(kShell, mask);
}
void pelmar_hal_set_shell_print_mask(uint32_t mask) {
  set_mask(kShell, mask);
}
void pelmar_hal_close_shell_print(void) {
  close(kShell);
}

void pelmar_hal_close_print(void) {
  g_logcat_print_mask.levels.store(0, std::memory_order_relaxed);
  g_shell_print_mask.levels.store(0, std::memory_order_relaxed);
}
}
