#include "handle.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace pelmar::platform {

// All open descriptors. The list is locked during a fork, so that the child finds it whole.
class ProcessFd::List {
 public:
  static void add(ProcessFd& entry, int fd) {
    entry.fd_ = fd;
    if (!entry) return;
    entry.next_ = first_;
    if (first_ != nullptr) first_->previous_ = &entry;
    first_ = &entry;
  }

  // Returns the descriptor, which the entry no longer has.
  static int remove(ProcessFd& entry) {
    if (!entry) return -1;
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

ProcessFd::ProcessFd(const std::function<int()>& create) {
  const std::lock_guard lock(List::mutex_);
  List::add(*this, create());
}

bool ProcessFd::make_socket_pair(ProcessFd& one, ProcessFd& other) {
  const std::lock_guard lock(List::mutex_);
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
  List::add(one, ends[0]);
  List::add(other, ends[1]);
  return true;
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
  if (*this) ::close(List::remove(*this));
}

unsigned fork_count() {
  return ProcessFd::List::forks_.load(std::memory_order_relaxed);
}

// We do not wait for the mutex: another thread reports, or it held the mutex during the fork that created this process.
void report_problem(const std::string& line) {
  constinit static std::mutex mutex;
  const std::unique_lock lock(mutex, std::try_to_lock);
  if (!lock) return;
  static auto& last = *new std::string;  // never destroyed: threads may connect until the process ends
  if (line == last) return;
  last = line;
  ::syslog(LOG_ERR, "%s", line.c_str());
}

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
