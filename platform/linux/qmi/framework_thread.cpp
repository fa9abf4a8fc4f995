#include "framework_thread.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace pelmar::platform {

FrameworkThread::FrameworkThread() : wake_([] { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }) {
  if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void FrameworkThread::start(std::function<void()> body) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread(std::move(body));
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void FrameworkThread::wake() {
  ::eventfd_write(descriptor(), 1);
}

void FrameworkThread::acknowledge() {
  eventfd_t count;
  ::eventfd_read(descriptor(), &count);
}

void FrameworkThread::finish() {
  if (is_current()) return detach();
  if (thread_.joinable()) thread_.join();
}

void FrameworkThread::detach() {
  if (thread_.joinable()) thread_.detach();
}

bool CallerCallbacks::run(const std::function<void()>& callback) {
  const auto self = std::this_thread::get_id();
  {
    const std::lock_guard lock(mutex_);
    running_.push_back(self);
  }
  const unsigned forks = fork_count();
  callback();
  if (fork_count() != forks) return false;
  {
    const std::lock_guard lock(mutex_);
    running_.erase(std::find(running_.begin(), running_.end(), self));
  }
  ended_.notify_all();
  return true;
}

void CallerCallbacks::wait_for_others() {
  const auto self = std::this_thread::get_id();
  std::unique_lock lock(mutex_);
  ended_.wait(
      lock, [&] { return std::all_of(running_.begin(), running_.end(), [&](const auto& id) { return id == self; }); });
}

}  // namespace pelmar::platform
