// The name and id of the library's process.
//
// A line of the system log has the name unless the RIL instance is set, so the functions that read it for the lines use
// pelmar_utils_syslog_*(), not the log macros. A name is built in a buffer of one thread and then published for ever,
// so that no thread reads a part of it. During the first read other threads get the name that was published before, at
// first the empty name.
#include "pelmar_process.h"

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "pelmar_log_site.h"
#include "pelmar_string.h"

namespace pelmar {
namespace {

constexpr size_t kLineBytes = 256;
constexpr int kLineLimit = 253;      // the most characters read of a file's first line
constexpr size_t kStatusNameAt = 6;  // after "Name:" and a tab
constexpr size_t kNameBytes = sizeof(pelmar_pid_info::p_name);

using Line = char[kLineBytes];
using Name = char[kNameBytes];

std::atomic<const char*> g_name{""};
std::atomic<int32_t> g_id{0};
pelmar_pid_info g_pid_info;

const char* name() {
  return g_name.load(std::memory_order_acquire);
}
void publish(const char* text) {
  g_name.store(text, std::memory_order_release);
}

// True for the first caller. The flag is set before the work, so that a process makes one attempt, even if it fails.
bool first(std::atomic<bool>& called) {
  return !called.load(std::memory_order_relaxed) && !called.exchange(true, std::memory_order_relaxed);
}

void format_path(Line& path, int32_t id, const char* file) {
  std::snprintf(path, sizeof(path), "/proc/%d/%s", id, file);
}

// Reads the first line of a file. Returns null, or the function of the C library that failed.
const char* read_first_line(const char* path, Line& line) {
  FILE* const file = std::fopen(path, "re");
  if (file == nullptr) return "fopen";
  const bool read = std::fgets(line, kLineLimit + 1, file) != nullptr;
  std::fclose(file);
  return read ? nullptr : "fgets";
}

void copy(Name& out, const char* text) {
  std::snprintf(out, sizeof(out), "%s", text);
}

// Reads the program path, which ends with the first NUL of the command-line file.
bool read_name_from_command_line(Name& out) {
  Line path;
  format_path(path, getpid(), "cmdline");
  Line line = {};
  if (const char* const failed = read_first_line(path, line)) {
    // The line for fopen() does not name this function.
    const bool names_function = std::strcmp(failed, "fgets") == 0;
    pelmar_utils_syslog_err("%s%s fail", names_function ? "pelmar_get_current_pid_name, " : "", failed);
    return false;
  }
  pelmar_utils_syslog_dbg("pelmar_get_current_pid_name, proc_pid_buf = %s", line);
  const char* const slash = std::strrchr(line, '/');
  if (slash == nullptr) pelmar_utils_syslog_err("pelmar_get_current_pid_name, proc_pid_buf should be name");
  copy(out, slash != nullptr ? slash + 1 : line);
  pelmar_utils_syslog_dbg("pelmar_get_current_pid_name, str_pid_name: %s", slash != nullptr ? slash : line);
  pelmar_utils_syslog_dbg("pelmar_get_current_pid_name, g_pid_info.p_name = %s", out);
  return true;
}

// REQUIRES: no other thread uses `out`. Trimming logs, and a log line may publish the name from the command line.
bool read_name_from_status(Name& out) {
  Line path;
  format_path(path, getpid(), "status");
  Line line = {};
  if (const char* const failed = read_first_line(path, line)) {
    pelmar_utils_syslog_err("pelmar_get_current_pid_name_ex, %s fail", failed);
    return false;
  }
  pelmar_utils_syslog_dbg("pelmar_get_current_pid_name_ex, proc_pid_buf = %s", line);
  copy(out, line + kStatusNameAt);
  pelmar_str_trim(out, kNameBytes - 1);
  pelmar_utils_syslog_dbg("pelmar_get_current_pid_name_ex, g_pid_info.p_name = %s", out);
  return true;
}

// The record to fill: the caller's, or the process's own, whose name is published and is empty while it is read.
enum class Record { kOfCaller, kOwn };

// The function's name appears in its log lines.
void pelmar_get_name_by_pid(pelmar_pid_info& info, Record record) {
  Line path;
  format_path(path, info.p_id, "cmdline");
  PELMAR_LOG_DEBUG("proc_pid_path: %s", path);
  Line line = {};
  if (const char* const failed = read_first_line(path, line)) {
    PELMAR_LOG_ERROR("%s fail", failed);
    return;
  }
  PELMAR_LOG_DEBUG("proc_pid_buf: %s", line);
  const char* const slash = std::strrchr(line, '/');
  if (slash == nullptr) PELMAR_LOG_DEBUG("proc_pid_buf should be name");
  copy(info.p_name, slash != nullptr ? slash + 1 : line);
  if (record == Record::kOwn) publish(info.p_name);
  PELMAR_LOG_DEBUG("str_pid_name: %s", slash != nullptr ? slash : line);
  PELMAR_LOG_DEBUG("p_pid_info->p_name: %s", info.p_name);
  PELMAR_LOG_DEBUG("close fp");
}

void read_info(pelmar_pid_info& info, Record record) {
  if (record == Record::kOwn) publish("");
  info = {.p_id = getpid(), .p_name = {}};
  if (record == Record::kOwn) g_id.store(info.p_id, std::memory_order_relaxed);
  pelmar_get_name_by_pid(info, record);
  PELMAR_LOG_DEBUG_AS("pelmar_get_current_pid_info", "p_id: %d, p_name: %s", info.p_id, info.p_name);
}

void fill_own_record() {
  static std::atomic<bool> called{false};
  if (!first(called)) return;
  Operation operation(PELMAR_PLACE_AS("pelmar_get_current_pid_info"));
  read_info(g_pid_info, Record::kOwn);
}

// Whether the entry of /proc is the wanted process.
// Compatibility: the first line of its status file is read but not used: the compared name is empty, so that only the
// empty task name matches.
bool is_task(const char* entry_name, const char* task_name) {
  constexpr const char* kFunction = "pelmar_get_pid_by_name";
  Line path;
  if (std::snprintf(path, sizeof(path), "/proc/%s/status", entry_name) >= static_cast<int>(sizeof(path))) return false;
  Line line = {};
  if (read_first_line(path, line) != nullptr) return false;
  const char* const candidate = "";
  PELMAR_LOG_DEBUG_AS(kFunction, "proc_pid_buf: %s", line);
  PELMAR_LOG_DEBUG_AS(kFunction, "task_name_tmp: %s, task_name: %s", candidate, task_name);
  const bool same = std::strcmp(task_name, candidate) == 0;
  if (same) {
    PELMAR_LOG_DEBUG_AS(kFunction, "pid: %d", std::atoi(entry_name));
  } else {
    PELMAR_LOG_DEBUG_AS(kFunction, "continue, task_name is not same with task_name_tmp");
  }
  return same;
}

bool is_subdirectory(const dirent& entry) {
  return entry.d_type == DT_DIR && std::strcmp(entry.d_name, ".") != 0 && std::strcmp(entry.d_name, "..") != 0;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

const char* pelmar_get_current_pid_name(void) {
  static std::atomic<bool> called{false};
  static Name from_command_line;
  if (first(called) && read_name_from_command_line(from_command_line)) publish(from_command_line);
  return name();
}

void pelmar_get_current_pid_info(pelmar_pid_info* info) {
  Operation operation(PELMAR_HERE);
  if (info == nullptr) return operation.fail("p_pid_info is NULL");
  read_info(*info, Record::kOfCaller);
}

const char* pelmar_utils_get_pid_name(void) {
  fill_own_record();
  return name();
}

int32_t pelmar_utils_get_pid_number(void) {
  fill_own_record();
  return g_id.load(std::memory_order_relaxed);
}

uint32_t pelmar_get_qcril_process_instance_id(void) {
  Operation operation(PELMAR_HERE);
  return operation.exit(__atomic_load_n(&g_pelmar_qcril_ril_process_instance_id, __ATOMIC_RELAXED));
}
}

const char* pelmar_get_current_pid_name_ex() {
  static std::atomic<bool> called{false};
  static Name from_status;
  if (first(called) && read_name_from_status(from_status)) publish(from_status);
  return name();
}

void pelmar_get_pid_by_name(int32_t* pid, const char* task_name) {
  Operation operation(PELMAR_HERE);
  if (pid == nullptr) return operation.fail("pid fail");
  if (task_name == nullptr) return operation.fail("task_name fail");
  PELMAR_LOG_DEBUG("task_name: %s", task_name);
  DIR* const processes = opendir("/proc");
  if (processes == nullptr) return operation.fail("opendir fail");
  while (const dirent* const entry = readdir(processes)) {
    if (is_subdirectory(*entry) && is_task(entry->d_name, task_name)) {
      *pid = std::atoi(entry->d_name);
      break;
    }
  }
  PELMAR_LOG_DEBUG("close dir");
  closedir(processes);
}
