// The process's part of the scripted platform: system log, properties, files, sleeps that take no time, threads, and
// the peripheral manager.
#include <cutils/properties.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>

#include "scripted_platform.h"

namespace scripted {

std::map<std::string, std::string>& properties = kNewObject;
Lines& property_writes = kNewObject;
Transfer on_read;
Transfer on_write;
std::function<void(pm_event)>& announce_power = kNewObject;

namespace {

struct Process {
  std::mutex lock;
  std::vector<LogLine> lines;
  ptrdiff_t cleared = 0;                                // the number of lines before clear_log()
  std::deque<std::pair<void* (*)(void*), void*>> held;  // the functions and arguments of held threads
};
Process& g_process = kNewObject;

// The library serves processes of this name. The kernel reads it where the arguments are.
[[maybe_unused]] const char* const g_name = std::strcpy(program_invocation_name, "/mtb");

std::string g_suffix;
std::string g_target;
std::atomic<Threads> g_threads{Threads::kRun};
thread_local bool t_runs_held_thread = false;

const char* opened_path(const char* path) {
  return !g_suffix.empty() && std::string(path).ends_with(g_suffix) ? g_target.c_str() : path;
}

long transfer_size(const Transfer& transfer, size_t requested) {
  return transfer ? transfer(static_cast<long>(requested)) : static_cast<long>(requested);
}

int call_pm(void* handle, const std::string& name) {
  EXPECT_EQ(handle, &announce_power);
  return play({.name = name}).code;
}

}  // namespace

std::vector<LogLine> log_lines(bool since_reset) {
  Guard guard(g_process.lock);
  return {g_process.lines.begin() + (since_reset ? 0 : g_process.cleared), g_process.lines.end()};
}

void clear_log() {
  Guard guard(g_process.lock);
  g_process.cleared = static_cast<ptrdiff_t>(g_process.lines.size());
}

void reset_golden_log() {
  Guard guard(g_process.lock);
  g_process.lines.clear();
  g_process.cleared = 0;
}

Lines log_bodies() {
  Lines bodies;
  for (const auto& [priority, text] : log_lines()) {
    const std::string level = priority == LOG_ERR ? "E" : priority == LOG_DEBUG ? "D" : "?";
    const size_t prefix_end = text.starts_with('[') || text.starts_with("SUB[") ? text.find("] ") : text.npos;
    bodies.push_back(prefix_end != text.npos ? level + text.substr(prefix_end + 1) : level + "|" + text);
  }
  return bodies;
}

bool logged(const std::string& body) {
  const Lines bodies = log_bodies();
  return std::find(bodies.begin(), bodies.end(), body) != bodies.end();
}

void redirect_opens(const std::string& suffix, const std::string& target) {
  g_suffix = suffix;
  g_target = target;
}

std::string file_with(const std::string& content) {
  const int file = memfd_create("scripted", 0);
  EXPECT_EQ(pwrite(file, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  return "/proc/self/fd/" + std::to_string(file);
}

void set_threads(Threads behaviour) {
  g_threads = behaviour;
}

size_t held_threads() {
  Guard guard(g_process.lock);
  return g_process.held.size();
}

// Runs each held function on a new thread, as pthread_create() would.
void run_held() {
  while (held_threads() > 0) {
    Guard guard(g_process.lock);
    const auto [routine, argument] = g_process.held.front();
    g_process.held.pop_front();
    guard.unlock();
    pthread_t id;
    t_runs_held_thread = true;
    pthread_create(&id, nullptr, routine, argument);
    t_runs_held_thread = false;
    pthread_join(id, nullptr);
  }
}

}  // namespace scripted

using namespace scripted;

extern "C" {

void vsyslog(int priority, const char* format, va_list arguments) {
  char text[16384];
  std::vsnprintf(text, sizeof(text), format, arguments);
  Guard guard(g_process.lock);
  g_process.lines.push_back({priority, text});
}

int property_get(const char* name, char* value, const char* default_value) {
  Guard guard(g_process.lock);
  const auto found = properties.find(name);
  const std::string text = found != properties.end() ? found->second : default_value == nullptr ? "" : default_value;
  std::memcpy(value, text.c_str(), text.size() + 1);
  return static_cast<int>(text.size());
}

int property_set(const char* name, const char* value) {
  Guard guard(g_process.lock);
  properties[name] = value;
  property_writes.push_back(std::string(name) + "=" + value);
  return 0;
}

unsigned sleep(unsigned seconds) {
  play({.name = "sleep", .timeout = seconds});
  return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* end, timespec*) {
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
  EXPECT_EQ(flags, TIMER_ABSTIME);
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto seconds = static_cast<unsigned>(end->tv_sec - now.tv_sec + (end->tv_nsec > now.tv_nsec ? 1 : 0));
  return play({.name = "clock_nanosleep", .timeout = seconds}).code;
}

FILE* fopen(const char* path, const char* mode) {
  static const auto real = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"));
  return real(opened_path(path), mode);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
  va_end(arguments);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, opened_path(path), flags, mode));
}

ssize_t read(int file, void* buffer, size_t size) {
  const long allowed = transfer_size(on_read, size);
  return allowed < 0 ? -1 : syscall(SYS_read, file, buffer, allowed);
}

ssize_t write(int file, const void* buffer, size_t size) {
  const long allowed = transfer_size(on_write, size);
  return allowed < 0 ? -1 : syscall(SYS_write, file, buffer, allowed);
}

// A statically linked sanitizer intercepts this function of the C library.
int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) __attribute__((weak));

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument) {
  static const auto create = __interceptor_pthread_create != nullptr
                                 ? &__interceptor_pthread_create
                                 : reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (int state; attributes != nullptr && pthread_attr_getdetachstate(attributes, &state) == 0) {
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
  }
  const Threads behaviour = t_runs_held_thread ? Threads::kRun : g_threads.load();
  if (behaviour == Threads::kRun) return create(thread, attributes, routine, argument);
  if (behaviour == Threads::kFail) return EAGAIN;
  Guard guard(g_process.lock);
  g_process.held.emplace_back(routine, argument);
  *thread = pthread_self();
  return 0;
}

// --- peripheral manager ---

int pm_client_register(pm_client_event_cb callback, void* data, const char* device, const char* client,
                       enum pm_event* state_out, void** handle) {
  const int result = play({.name = std::string("register ") + device + " " + client}).code;
  announce_power = [=](pm_event event) { callback(data, event); };
  *state_out = EVENT_PERIPH_IS_OFFLINE;
  *handle = result == 0 ? &announce_power : nullptr;
  return result;
}

#define PM_CALL(name)                  \
  int pm_client_##name(void* handle) { \
    return call_pm(handle, #name);     \
  }
PM_CALL(connect)
PM_CALL(disconnect)
PM_CALL(unregister)

int pm_client_event_acknowledge(void* handle, enum pm_event event) {
  return call_pm(handle, "event_acknowledge " + std::to_string(event));
}
}
