// What the process gives the library: system log, properties, files, sleeps that take no time, memory that may run out,
// threads, and the peripheral manager.
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
#include <cstdarg>
#include <cstring>
#include <deque>

#include "scripted_platform.h"

namespace scripted {

std::map<std::string, std::string>& properties = kNewObject;
Lines& property_writes = kNewObject;
std::vector<unsigned>& sleeps = kNewObject;
std::function<void(unsigned)>& on_sleep = kNewObject;
std::vector<timespec>& waits = kNewObject;
Transfer on_read;
Transfer on_write;
Lines& pm_calls = kNewObject;
std::map<std::string, int>& pm_results = kNewObject;
pm_client_event_cb pm_callback = nullptr;
void* pm_callback_data = nullptr;

namespace {

struct HeldThread {
  void* (*routine)(void*);
  void* argument;
};

struct Process {
  std::mutex lock;
  std::vector<LogLine> lines;
  ptrdiff_t cleared = 0;  // so many of them
  std::map<std::string, int> reads;
  std::deque<HeldThread> held;
};
Process& g_process = kNewObject;

std::string g_suffix;
std::string g_target;
std::atomic<size_t> g_failing_size{SIZE_MAX};
std::atomic<Threads> g_threads{Threads::kRun};
thread_local bool t_runs_held_thread = false;

const char* opened_path(const char* path) {
  return !g_suffix.empty() && std::string(path).ends_with(g_suffix) ? g_target.c_str() : path;
}

long let_through(const Transfer& transfer, size_t requested) {
  return transfer ? transfer(static_cast<long>(requested)) : static_cast<long>(requested);
}

int record_pm(const std::string& name, const std::string& arguments = "") {
  pm_calls.push_back(name + arguments);
  return pm_results[name];
}

}  // namespace

std::vector<LogLine> log_lines() {
  Guard guard(g_process.lock);
  return {g_process.lines.begin() + g_process.cleared, g_process.lines.end()};
}

std::vector<LogLine> whole_log() {
  Guard guard(g_process.lock);
  return g_process.lines;
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

int reads_of(const std::string& name) {
  Guard guard(g_process.lock);
  return g_process.reads[name];
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

FailAllocationOf::FailAllocationOf(size_t size) {
  g_failing_size = size;
}
FailAllocationOf::~FailAllocationOf() {
  g_failing_size = SIZE_MAX;
}

void set_threads(Threads behaviour) {
  g_threads = behaviour;
}

size_t held_threads() {
  Guard guard(g_process.lock);
  return g_process.held.size();
}

// Each on a thread of its own: the library must not count on the caller's.
void run_held() {
  while (held_threads() > 0) {
    Guard guard(g_process.lock);
    const HeldThread thread = g_process.held.front();
    g_process.held.pop_front();
    guard.unlock();
    pthread_t id;
    t_runs_held_thread = true;
    pthread_create(&id, nullptr, thread.routine, thread.argument);
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
  ++g_process.reads[name];
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
  Guard guard(g_process.lock);
  sleeps.push_back(seconds);
  guard.unlock();
  if (on_sleep) on_sleep(seconds);
  return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* end, timespec*) {
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
  EXPECT_EQ(flags, TIMER_ABSTIME);
  Guard guard(g_process.lock);
  waits.push_back(*end);
  return waits.size() % 2 == 1 ? EINTR : 0;
}

FILE* fopen(const char* path, const char* mode) {
  static const auto real = reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
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
  const long allowed = let_through(on_read, size);
  return allowed < 0 ? -1 : syscall(SYS_read, file, buffer, allowed);
}

ssize_t write(int file, const void* buffer, size_t size) {
  const long allowed = let_through(on_write, size);
  return allowed < 0 ? -1 : syscall(SYS_write, file, buffer, allowed);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SCRIPTED_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SCRIPTED_SANITIZED 1
#endif
#endif

#ifndef SCRIPTED_SANITIZED
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);

void* malloc(size_t size) {
  return size == g_failing_size.load() ? nullptr : __libc_malloc(size);
}

// What a compiler may make of a malloc whose block is zeroed.
void* calloc(size_t count, size_t size) {
  return count * size == g_failing_size.load() ? nullptr : __libc_calloc(count, size);
}

bool scripted::FailAllocationOf::is_supported() {
  return true;
}
#else
bool scripted::FailAllocationOf::is_supported() {
  return false;
}
#endif

// A sanitizer that is linked statically stands in front of the C library here.
int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) __attribute__((weak));

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* argument) {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto create = __interceptor_pthread_create != nullptr
                                 ? &__interceptor_pthread_create
                                 : reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  const Threads behaviour = t_runs_held_thread ? Threads::kRun : g_threads.load();
  if (behaviour == Threads::kRun) return create(thread, attributes, routine, argument);
  if (behaviour == Threads::kFail) return EAGAIN;
  Guard guard(g_process.lock);
  g_process.held.push_back({routine, argument});
  *thread = pthread_self();
  return 0;
}

// --- peripheral manager: one voter, whose calls end as a test sets them ---

int pm_client_register(pm_client_event_cb callback, void* data, const char* device, const char* client,
                       enum pm_event* state_out, void** handle) {
  const int result = record_pm("register", std::string(" ") + device + " " + client);
  if (result != 0) return result;
  pm_callback = callback;
  pm_callback_data = data;
  *state_out = EVENT_PERIPH_IS_OFFLINE;
  *handle = &pm_callback;
  return 0;
}

int pm_client_connect(void* handle) {
  EXPECT_EQ(handle, &pm_callback);
  return record_pm("connect");
}

int pm_client_disconnect(void* handle) {
  EXPECT_EQ(handle, &pm_callback);
  return record_pm("disconnect");
}

int pm_client_unregister(void* handle) {
  EXPECT_EQ(handle, &pm_callback);
  return record_pm("unregister");
}

int pm_client_event_acknowledge(void* handle, enum pm_event event) {
  EXPECT_EQ(handle, &pm_callback);
  return record_pm("event_acknowledge", " " + std::to_string(event));
}
}
