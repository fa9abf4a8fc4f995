#include "process_fd.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <utility>

namespace pelmar::platform {

// All descriptors that are open. A fork takes place while the list is locked, so that a child finds it whole.
class ProcessFd::List {
 public:
  static void add(ProcessFd& entry, int fd) {
    entry.fd_ = fd;
    if (fd < 0) return;
    entry.next_ = first_;
    if (first_ != nullptr) first_->previous_ = &entry;
    first_ = &entry;
  }

  // Returns the descriptor, which the entry has no more.
  static int remove(ProcessFd& entry) {
    if (entry.fd_ < 0) return -1;
    (entry.previous_ != nullptr ? entry.previous_->next_ : first_) = entry.next_;
    if (entry.next_ != nullptr) entry.next_->previous_ = entry.previous_;
    entry.previous_ = entry.next_ = nullptr;
    return std::exchange(entry.fd_, -1);
  }

  static void lock() { mutex_.lock(); }
  static void unlock() { mutex_.unlock(); }
  static void begin_child() {
    forks_.fetch_add(1, std::memory_order_relaxed);
    while (first_ != nullptr) ::close(remove(*first_));
    unlock();
  }

  constinit static inline std::mutex mutex_;
  constinit static inline ProcessFd* first_ = nullptr;
  constinit static inline std::atomic<unsigned> forks_{0};
  [[maybe_unused]] static inline const int fork_handlers_ = ::pthread_atfork(lock, unlock, begin_child);
};

ProcessFd::ProcessFd(int (*create)()) {
  const std::lock_guard lock(List::mutex_);
  List::add(*this, create());
}

ProcessFd::ProcessFd(ProcessFd&& other) noexcept {
  const std::lock_guard lock(List::mutex_);
  List::add(*this, List::remove(other));
}

ProcessFd& ProcessFd::operator=(ProcessFd&& other) noexcept {
  if (this == &other) return *this;
  reset();
  const std::lock_guard lock(List::mutex_);
  List::add(*this, List::remove(other));
  return *this;
}

void ProcessFd::reset() {
  const std::lock_guard lock(List::mutex_);
  if (const int fd = List::remove(*this); fd >= 0) ::close(fd);
}

unsigned fork_count() {
  return ProcessFd::List::forks_.load(std::memory_order_relaxed);
}

}  // namespace pelmar::platform
