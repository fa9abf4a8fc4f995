// Log sites, with which every source of the library writes its log lines.
//
//     PELMAR_LOG_ERROR("payload is %u bytes, limit %u", length, kLimit);
//     PELMAR_LOG_DEBUG_AS("get_master_port", "port %d", port);   // under another function's name
//     PELMAR_LOG_DEBUG_IN(operation, "result %d", result);       // in a helper of an exported operation
//
// An exported operation logs its entry and its exit through an Operation:
//
//     bool pelmar_check_sub_id(uint32_t id) {
//       Operation operation(PELMAR_HERE);
//       return operation.exit(id <= 1);
//     }
//
// Each site joins the prefix (see pelmar_log.h) and the body to one format string, so that each sink formats a line in
// one call, and the compiler checks the body against its arguments. The system log's line is written first.
//
// A site that both masks suppress costs one inline test per sink and evaluates no argument. The first line of a process
// merges the masks' properties; until then a site counts as open, and the tests are made out of line.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "pelmar_log.h"
#include "pelmar_process.h"

namespace pelmar::log {

enum Level : int32_t { kError = PELMAR_LOG_LEVEL_ERROR, kDebug = PELMAR_LOG_LEVEL_DEBUG };

inline constexpr uint32_t kAllLevels = 0xFFFF;

// The levels that pass one sink. Relaxed order is enough: a line that another thread writes at the time of a change may
// still go by the old mask.
struct PrintMask {
  std::atomic<uint32_t> levels{kAllLevels};
  std::atomic<bool> loaded{false};  // the sink's property has been merged

  bool passes(int32_t level) const {
    return (static_cast<uint32_t>(level) & ~levels.load(std::memory_order_relaxed)) == 0;
  }
  bool may_pass(Level level) const { return !loaded.load(std::memory_order_relaxed) || passes(level); }
};

// Hidden, so that a site accesses them without the global offset table.
[[gnu::visibility("hidden")]] extern PrintMask g_logcat_print_mask;
[[gnu::visibility("hidden")]] extern PrintMask g_shell_print_mask;

inline bool may_pass(Level level) {
  return g_logcat_print_mask.may_pass(level) || g_shell_print_mask.may_pass(level);
}

// The origin of a line: the function whose name it carries, and a place in that function's source.
struct Place {
  const char* function;
  const char* file;
  int line;
};

constexpr Place place_of(const char* function, const char* file, int line) {
  return {function, file, line};
}

// One line's format, with the prefix of each of its three forms.
struct Formats {
  const char* instance;
  const char* process;
  const char* shell;
};

// The formats come from the macros below, where the compiler checks them with check_format().
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename... Arguments>
[[gnu::cold, gnu::noinline]] void write_line(Level level, const Place& place, const Formats& formats,
                                             Arguments... arguments) {
  if (pelmar_hal_get_logcat_print_flag(level)) {
    const auto write_system_log = level == kError ? pelmar_utils_syslog_err : pelmar_utils_syslog_dbg;
    const uint32_t instance = __atomic_load_n(&g_pelmar_qcril_ril_process_instance_id, __ATOMIC_RELAXED);
    if (instance != PELMAR_RIL_INSTANCE_UNKNOWN) {
      write_system_log(formats.instance, static_cast<int>(instance), place.file, place.line, place.function,
                       arguments...);
    } else {
      write_system_log(formats.process, pelmar_get_current_pid_name(), place.file, place.line, place.function,
                       arguments...);
    }
  }
  if (pelmar_hal_get_shell_print_flag(level)) {
    std::printf(formats.shell, place.file, place.line, place.function, arguments...);
  }
}
#pragma GCC diagnostic pop

[[gnu::format(printf, 1, 2)]] inline void check_format(const char*, ...) {}

// The lines of entry, exit and early ends. They are out of line, because most sites write one of them.
[[gnu::cold, gnu::visibility("hidden")]] void write_entry(const Place& place);
[[gnu::cold, gnu::visibility("hidden")]] void write_exit(const Place& place);
[[gnu::cold, gnu::visibility("hidden")]] void write_exit_result(const Place& place, int result);
[[gnu::cold, gnu::visibility("hidden")]] void write_text(Level level, const Place& place, const char* text);

// A running exported operation. The constructor logs the entry; exit() logs the exit with a result, and without
// it the destructor logs the plain exit.
class Operation {
 public:
  explicit Operation(const Place& here) : here_(here) {
    if (may_pass(kDebug)) [[unlikely]]
      write_entry(here_);
  }
  ~Operation() {
    if (!has_exited_ && may_pass(kDebug)) [[unlikely]]
      write_exit(here_);
  }
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  const Place& here() const { return here_; }
  Place here_at(int line) const { return {here_.function, here_.file, line}; }

  template <typename Result>
  Result exit(Result result, int line = __builtin_LINE()) {
    has_exited_ = true;
    if (may_pass(kDebug)) [[unlikely]]
      write_exit_result(here_at(line), static_cast<int>(result));
    return result;
  }

  // Log why the operation ends early: fail() at error level, finish() at debug level. With a result they also log the
  // exit; without one the destructor does.
  template <typename Result>
  Result fail(Result result, const char* reason, int line = __builtin_LINE()) {
    fail(reason, line);
    return exit(result, line);
  }
  void fail(const char* reason, int line = __builtin_LINE()) const { write_text(kError, here_at(line), reason); }
  template <typename Result>
  Result finish(Result result, const char* reason, int line = __builtin_LINE()) {
    finish(reason, line);
    return exit(result, line);
  }
  void finish(const char* reason, int line = __builtin_LINE()) const { write_text(kDebug, here_at(line), reason); }

 private:
  const Place here_;
  bool has_exited_ = false;
};

}  // namespace pelmar::log

namespace pelmar {
using log::Operation;
}

#define PELMAR_HERE ::pelmar::log::place_of(__func__, __FILE_NAME__, __LINE__)

#define PELMAR_LOG_FORMATS(body) \
  { "SUB[%d][%s:%d] %s: " body, "[%s][%s:%d] %s: " body, "RIL[%s:%d] %s: " body "\n" }

#define PELMAR_LOG_LINE(level, place, body, ...)                                                    \
  do {                                                                                              \
    if (false) ::pelmar::log::check_format(body __VA_OPT__(, ) __VA_ARGS__);                        \
    if (::pelmar::log::may_pass(level)) [[unlikely]] {                                              \
      ::pelmar::log::write_line(level, place, PELMAR_LOG_FORMATS(body) __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                                               \
  } while (0)

#define PELMAR_LOG_ERROR(...) PELMAR_LOG_LINE(::pelmar::log::kError, PELMAR_HERE, __VA_ARGS__)
#define PELMAR_LOG_DEBUG(...) PELMAR_LOG_LINE(::pelmar::log::kDebug, PELMAR_HERE, __VA_ARGS__)
// For a helper that several sources share: with the place of its caller.
#define PELMAR_LOG_ERROR_AT(place, ...) PELMAR_LOG_LINE(::pelmar::log::kError, place, __VA_ARGS__)
#define PELMAR_LOG_DEBUG_AT(place, ...) PELMAR_LOG_LINE(::pelmar::log::kDebug, place, __VA_ARGS__)

// For a step of another function in the same source: with the name of that function.
#define PELMAR_PLACE_AS(function) ::pelmar::log::place_of(function, __FILE_NAME__, __LINE__)
#define PELMAR_LOG_ERROR_AS(function, ...) \
  PELMAR_LOG_LINE(::pelmar::log::kError, PELMAR_PLACE_AS(function), __VA_ARGS__)
#define PELMAR_LOG_DEBUG_AS(function, ...) \
  PELMAR_LOG_LINE(::pelmar::log::kDebug, PELMAR_PLACE_AS(function), __VA_ARGS__)
#define PELMAR_LOG_ERROR_IN(operation, ...) PELMAR_LOG_ERROR_AS((operation).here().function, __VA_ARGS__)
#define PELMAR_LOG_DEBUG_IN(operation, ...) PELMAR_LOG_DEBUG_AS((operation).here().function, __VA_ARGS__)
