// Log sites: how every source of the library writes a line.
//
//     PELMAR_LOG_ERROR("payload is %u bytes, limit %u", length, kLimit);
//     PELMAR_LOG_DEBUG_AS(client.name, "using port %d", port);   // under another function's name
//
// The prefixes (see pelmar_log.h) and the body become one format string at each site, so that a line is formatted in
// one call per sink, and the compiler checks the body against its arguments. The system log's line goes out first.
//
// A site that both masks suppress costs one inline test per sink and evaluates no argument. Until the masks' properties
// are merged, by the first line of a process, a site counts as open and the tests are made out of line.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "pelmar_log.h"
#include "pelmar_process.h"

namespace pelmar::log {

enum Level : int32_t { kError = PELMAR_LOG_LEVEL_ERROR, kDebug = PELMAR_LOG_LEVEL_DEBUG };

inline constexpr uint32_t kAllLevels = 0xFFFF;

// The levels that pass one sink. Plain words by nature: no thread waits for another, and a change may miss a line that
// is under way.
struct PrintMask {
  std::atomic<uint32_t> levels{kAllLevels};
  std::atomic<bool> loaded{false};  // the sink's property has been merged

  bool passes(int32_t level) const {
    return (static_cast<uint32_t>(level) & ~levels.load(std::memory_order_relaxed)) == 0;
  }
  bool may_pass(Level level) const { return !loaded.load(std::memory_order_relaxed) || passes(level); }
};

// Hidden, so that a site reaches them without the global offset table.
[[gnu::visibility("hidden")]] extern PrintMask g_logcat_print_mask;
[[gnu::visibility("hidden")]] extern PrintMask g_shell_print_mask;

inline bool may_pass(Level level) {
  return g_logcat_print_mask.may_pass(level) || g_shell_print_mask.may_pass(level);
}

struct Site {
  Level level;
  int line;
  const char* file;
  const char* function;
};

// One line's format, with the prefix of each of its three forms.
struct Formats {
  const char* instance;
  const char* process;
  const char* shell;
};

// The formats come from the macros below, where check_format() had the compiler check them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename... Arguments>
[[gnu::cold, gnu::noinline]] void write_line(const Site& site, const Formats& formats, Arguments... arguments) {
  if (pelmar_hal_get_logcat_print_flag(site.level)) {
    const auto write_system_log = site.level == kError ? pelmar_utils_syslog_err : pelmar_utils_syslog_dbg;
    const uint32_t instance = __atomic_load_n(&g_pelmar_qcril_ril_process_instance_id, __ATOMIC_RELAXED);
    if (instance != PELMAR_RIL_INSTANCE_UNKNOWN) {
      write_system_log(formats.instance, static_cast<int>(instance), site.file, site.line, site.function, arguments...);
    } else {
      write_system_log(formats.process, pelmar_get_current_pid_name(), site.file, site.line, site.function,
                       arguments...);
    }
  }
  if (pelmar_hal_get_shell_print_flag(site.level)) {
    std::printf(formats.shell, site.file, site.line, site.function, arguments...);
  }
}
#pragma GCC diagnostic pop

[[gnu::format(printf, 1, 2)]] inline void check_format(const char*, ...) {}

// The lines that most sites are, out of line.
[[gnu::cold, gnu::visibility("hidden")]] void write_entry(const char* function, const char* file, int line);
[[gnu::cold, gnu::visibility("hidden")]] void write_exit(const char* function, const char* file, int line);
[[gnu::cold, gnu::visibility("hidden")]] void write_exit_ret(const char* function, const char* file, int line, int ret);

}  // namespace pelmar::log

#define PELMAR_LOG_FORMATS(body) \
  { "SUB[%d][%s:%d] %s: " body, "[%s][%s:%d] %s: " body, "RIL[%s:%d] %s: " body "\n" }

#define PELMAR_LOG_IF_OPEN(level, write)               \
  do {                                                 \
    if (::pelmar::log::may_pass(level)) [[unlikely]] { \
      write;                                           \
    }                                                  \
  } while (0)

#define PELMAR_LOG_LINE(level, function, body, ...)                                                            \
  do {                                                                                                         \
    if (false) ::pelmar::log::check_format(body __VA_OPT__(, ) __VA_ARGS__);                                   \
    PELMAR_LOG_IF_OPEN(level, ::pelmar::log::write_line({level, __LINE__, __FILE_NAME__, function},            \
                                                        PELMAR_LOG_FORMATS(body) __VA_OPT__(, ) __VA_ARGS__)); \
  } while (0)

#define PELMAR_LOG_ERROR_AS(function, ...) PELMAR_LOG_LINE(::pelmar::log::kError, function, __VA_ARGS__)
#define PELMAR_LOG_DEBUG_AS(function, ...) PELMAR_LOG_LINE(::pelmar::log::kDebug, function, __VA_ARGS__)
#define PELMAR_LOG_ERROR(...) PELMAR_LOG_ERROR_AS(__func__, __VA_ARGS__)
#define PELMAR_LOG_DEBUG(...) PELMAR_LOG_DEBUG_AS(__func__, __VA_ARGS__)

// What every exported operation writes on entry and on leaving, without or with its result.
#define PELMAR_LOG_ENTRY_AS(function) \
  PELMAR_LOG_IF_OPEN(::pelmar::log::kDebug, ::pelmar::log::write_entry(function, __FILE_NAME__, __LINE__))
#define PELMAR_LOG_EXIT_AS(function) \
  PELMAR_LOG_IF_OPEN(::pelmar::log::kDebug, ::pelmar::log::write_exit(function, __FILE_NAME__, __LINE__))
#define PELMAR_LOG_EXIT_RET_AS(function, ret) \
  PELMAR_LOG_IF_OPEN(::pelmar::log::kDebug,   \
                     ::pelmar::log::write_exit_ret(function, __FILE_NAME__, __LINE__, static_cast<int>(ret)))
#define PELMAR_LOG_ENTRY() PELMAR_LOG_ENTRY_AS(__func__)
#define PELMAR_LOG_EXIT() PELMAR_LOG_EXIT_AS(__func__)
#define PELMAR_LOG_EXIT_RET(ret) PELMAR_LOG_EXIT_RET_AS(__func__, ret)

// The whole body of an exported operation whose work is one expression: entry, work, exit, return.
#define PELMAR_RETURN_LOGGED(work)      \
  do {                                  \
    PELMAR_LOG_ENTRY();                 \
    const auto logged_result = (work);  \
    PELMAR_LOG_EXIT_RET(logged_result); \
    return logged_result;               \
  } while (0)
