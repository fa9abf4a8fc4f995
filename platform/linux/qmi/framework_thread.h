// What client and notifier handles share: a thread that runs their callbacks, and the rule of their release.
//
// A release returns when no callback of the handle runs any more, except where it is called from one of them.
#pragma once

#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "process_fd.h"

namespace pelmar::platform {

// A thread that serves one handle, with a descriptor to wake it by. All signals are left to the program's own threads.
class FrameworkThread {
 public:
  FrameworkThread();
  FrameworkThread(const FrameworkThread&) = delete;
  FrameworkThread& operator=(const FrameworkThread&) = delete;

  // `body` keeps alive whatever it needs; it ends by itself once it is stopped.
  void start(std::function<void()> body);

  bool is_current() const { return thread_.get_id() == std::this_thread::get_id(); }

  // Runs a callback on the thread. In a child of fork() that returns from the callback, this is the one thread, which
  // has nothing to serve there: the process ends, as it does with its last thread.
  template <typename Callback>
  static void run_callback(Callback callback) {
    const unsigned forks = fork_count();
    callback();
    if (fork_count() != forks) std::exit(0);
  }

  // Readable after wake() until acknowledge().
  int descriptor() const { return wake_.get(); }
  void wake();
  void acknowledge();

  // Waits for the thread's end. On the thread itself, leaves it to end alone.
  void finish();
  void detach();

 private:
  ProcessFd wake_;
  std::thread thread_;
};

// Callbacks that run on a caller's thread, during a registration.
class CallerCallbacks {
 public:
  // False in a child of fork() that the callback made: the caller must return, and take no lock before.
  [[nodiscard]] bool run(const std::function<void()>& callback);

  // Waits until none runs on another thread than this.
  void wait_for_others();

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  std::vector<std::thread::id> running_;
};

}  // namespace pelmar::platform
