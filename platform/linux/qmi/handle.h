// Common parts of client, notifier and voter handles: descriptors, reports of their problems, the table of the handles,
// and a thread for callbacks.
//
// A child of fork() shares none of them with its parent. A release returns after the last callback of the handle has
// returned; a release inside a callback of the handle does not wait for that callback.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qmi_client.h"

namespace pelmar::platform {

// The number of forks between the program's start and this process. If it changed during a callback, the callback
// forked and this is the child, where threads that exist only in the parent may hold the locks of handles.
unsigned fork_count();

// A file descriptor that a child of fork() does not share.
//
// A child's copy of a socket could end its parent's connection, and would keep it open after the parent's end. All such
// descriptors are therefore on one list, and a child closes its copies before fork() returns. The objects that a child
// inherits have no descriptor then, so they cannot reach the parent's peers.
class ProcessFd {
 public:
  ProcessFd() = default;
  // Owns what `create` returns, or nothing if that is negative. A fork waits for `create` to return.
  explicit ProcessFd(const std::function<int()>& create);
  ProcessFd(ProcessFd&& other) noexcept { *this = std::move(other); }
  ProcessFd& operator=(ProcessFd&& other) noexcept;
  ~ProcessFd() { reset(); }

  // Two connected stream sockets. False if the system has none; errno is set. REQUIRES: both objects are empty.
  static bool make_socket_pair(ProcessFd& one, ProcessFd& other);

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset();

 private:
  friend unsigned fork_count();
  class List;

  int fd_ = -1;
  ProcessFd* previous_ = nullptr;
  ProcessFd* next_ = nullptr;
};

// Why something failed and, if that is known, what to do; no text: it succeeded.
struct Problem {
  std::string text = "";
  bool is_temporary = false;  // another attempt may succeed, for example once the modem is there

  explicit operator bool() const { return !text.empty(); }
};

// Writes a line to the system log as an error. Callers try again and again, so a problem that lasts is reported once.
void report_problem(const std::string& line);

// A handle is a number in the form of a pointer. No number is used twice in a process, so that a stale or invented
// handle, or one of the parent in a child of fork(), is never taken for a live one.
template <typename Handle = qmi_client_type>
Handle new_handle() {
  static std::atomic<uintptr_t> last{0};
  constexpr uintptr_t kStep = 16;  // a caller that checks the alignment takes the handle for an address
  return reinterpret_cast<Handle>(last.fetch_add(kStep, std::memory_order_relaxed) + kStep);
}

// The one object of its type in this process. A child of fork() starts with a new one and never touches its parent's:
// threads that the child does not have may hold the locks there. None is destroyed, because threads may use it until
// the process ends. Of two objects that threads make at the same time, one is destroyed unused.
template <typename T>
T& of_process() {
  struct Entry {
    const unsigned forks = fork_count();
    T object;
  };
  constinit static std::atomic<Entry*> current{nullptr};
  Entry* entry = current.load();
  if (entry != nullptr && entry->forks == fork_count()) return entry->object;
  auto* const own = new Entry;
  if (current.compare_exchange_strong(entry, own)) return own->object;
  delete own;
  return entry->object;
}

// The live handles of one kind.
template <typename T, typename Handle = qmi_client_type>
class HandleTable {
 public:
  static HandleTable& of_this_process() { return of_process<HandleTable>(); }

  void add(Handle handle, std::shared_ptr<T> object) {
    const std::lock_guard lock(mutex_);
    objects_.emplace(handle, std::move(object));
  }

  // Null for a handle that is not in the table.
  std::shared_ptr<T> find(Handle handle) const {
    const std::lock_guard lock(mutex_);
    const auto found = objects_.find(handle);
    return found == objects_.end() ? nullptr : found->second;
  }

  // Of several callers with one handle, only one gets the object; the others get null.
  std::shared_ptr<T> remove(Handle handle) {
    const std::lock_guard lock(mutex_);
    auto node = objects_.extract(handle);
    return node ? std::move(node.mapped()) : nullptr;
  }

  std::vector<std::shared_ptr<T>> all() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<T>> list;
    for (const auto& entry : objects_) list.push_back(entry.second);
    return list;
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_map<Handle, std::shared_ptr<T>> objects_;
};

// A thread that serves one handle, with a descriptor that wakes it. The thread blocks all signals, so that the
// program's own threads handle them.
class FrameworkThread {
 public:
  FrameworkThread();
  FrameworkThread(const FrameworkThread&) = delete;
  FrameworkThread& operator=(const FrameworkThread&) = delete;

  // `body` keeps alive what it needs, and returns once its owner stops it.
  void start(std::function<void()> body);

  bool is_current() const { return thread_.get_id() == std::this_thread::get_id(); }

  // Runs a callback on the thread. If the callback forks and returns in the child too, this is the child's only thread
  // and has nothing to serve there: the child ends, as a process does with its last thread.
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

  // Waits for the thread's end. Called on the thread itself, it detaches the thread.
  void finish();
  void detach();

 private:
  ProcessFd wake_;
  std::thread thread_;
};

// The callbacks that run on callers' threads, during a registration.
class CallerCallbacks {
 public:
  // False in a child of fork() that the callback made: the caller must return without taking a lock.
  [[nodiscard]] bool run(const std::function<void()>& callback);

  // Waits until no callback runs on another thread.
  void wait_for_others();

 private:
  std::mutex mutex_;
  std::condition_variable ended_;
  std::vector<std::thread::id> running_;
};

}  // namespace pelmar::platform
