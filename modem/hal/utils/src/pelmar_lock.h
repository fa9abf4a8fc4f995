// A lock for process-wide state. Unlike std::mutex on every C library it needs no constructor to run at load time and
// no destructor at exit, where other threads may still hold it. Use with std::lock_guard.
#pragma once

#include <pthread.h>

namespace pelmar {

class Lock {
 public:
  constexpr Lock() = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace pelmar
