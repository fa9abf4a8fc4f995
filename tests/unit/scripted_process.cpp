// What the process gives the library: properties, sleeps that take no time, memory that may run out, and threads.
#include <cutils/properties.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>

#include "scripted_platform.h"
#include "scripted_state.h"

namespace scripted {

std::map<std::string, std::string>& properties = kNewObject;
std::vector<PropertyWrite>& property_writes = kNewObject;
std::vector<unsigned>& sleeps = kNewObject;
std::function<void(unsigned)>& on_sleep = kNewObject;
std::vector<timespec>& waits = kNewObject;

namespace {

struct HeldThread {
  void* (*routine)(void*);
  void* argument;
};

struct Process {
  std::mutex lock;
  std::map<std::string, int> reads;
  std::deque<HeldThread> held;
};

Process& process() {
  static Process* const instance = new Process;
  return *instance;
}

std::atomic<size_t> g_failing_size{SIZE_MAX};
std::atomic<Threads> g_threads{Threads::kRun};
thread_local bool t_runs_held_thread = false;

}  // namespace

int reads_of(const std::string& name) {
  Guard guard(process().lock);
  return process().reads[name];
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
  Guard guard(process().lock);
  return process().held.size();
}

void run_held() {
  while (true) {
    HeldThread thread;
    {
      Guard guard(process().lock);
      if (process().held.empty()) return;
      thread = process().held.front();
      process().held.pop_front();
    }
    // A thread of its own: the library must not count on the caller's.
    struct Run {
      static void* start(void* argument) {
        const auto* const held = static_cast<HeldThread*>(argument);
        return held->routine(held->argument);
      }
    };
    pthread_t id;
    t_runs_held_thread = true;
    pthread_create(&id, nullptr, Run::start, &thread);
    t_runs_held_thread = false;
    pthread_join(id, nullptr);
  }
}

}  // namespace scripted

using namespace scripted;

extern "C" {

unsigned sleep(unsigned seconds) {
  {
    Guard guard(process().lock);
    sleeps.push_back(seconds);
  }
  if (on_sleep) on_sleep(seconds);
  return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* end, timespec*) {
  EXPECT_EQ(clock, CLOCK_MONOTONIC);
  EXPECT_EQ(flags, TIMER_ABSTIME);
  Guard guard(process().lock);
  waits.push_back(*end);
  return waits.size() % 2 == 1 ? EINTR : 0;
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
  switch (t_runs_held_thread ? Threads::kRun : g_threads.load()) {
    case Threads::kFail:
      return EAGAIN;
    case Threads::kHold: {
      Guard guard(process().lock);
      process().held.push_back({routine, argument});
      *thread = pthread_self();
      return 0;
    }
    case Threads::kRun:
      break;
  }
  return create(thread, attributes, routine, argument);
}

int property_get(const char* name, char* value, const char* default_value) {
  Guard guard(process().lock);
  ++process().reads[name];
  const auto found = properties.find(name);
  const std::string text = found != properties.end() ? found->second : default_value == nullptr ? "" : default_value;
  std::memcpy(value, text.c_str(), text.size() + 1);
  return static_cast<int>(text.size());
}

int property_set(const char* name, const char* value) {
  Guard guard(process().lock);
  properties[name] = value;
  property_writes.push_back({name, value});
  return 0;
}
}
