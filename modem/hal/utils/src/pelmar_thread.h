// What the library needs of threads: a lock, words that threads share without one, and detached threads.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace pelmar {

// A lock for process-wide state; use it with std::lock_guard. On every C library it needs no constructor at load time
// and no destructor at exit, when other threads may still hold it; std::mutex does not guarantee that.
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

// Atomic access to plain words: exported records of C have fields that several threads use without a lock. Acquire and
// release order, because a thread that loads a handle must see what its maker wrote before; a load or a store is one
// instruction on x86-64 and on 64-bit Arm.
template <typename T>
T load(const T& word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

template <typename T>
void store(T& word, T value) {
  __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

template <typename T>
T exchange(T& word, T value) {
  return __atomic_exchange_n(&word, value, __ATOMIC_ACQ_REL);
}

// Starts a detached thread. Returns 0, or the error number of the thread library. pelmar_create_pthread() is the
// exported function, which logs.
int32_t start_detached(void* (*routine)(void*), void* argument);

}  // namespace pelmar
