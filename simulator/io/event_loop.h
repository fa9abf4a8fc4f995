// The one thread of the simulated modem: waits for descriptors and timers and calls their watchers and tasks.
//
// Everything runs on the thread that calls run(), so nothing here is locked. After unwatch() a watcher is not called
// again, also not for an event that epoll has returned already, so a posted task may destroy it.
#pragma once

#include <sys/epoll.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "unique_fd.h"

namespace pelmar::sim {

class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using Task = std::function<void()>;
  using TimerId = std::pair<Clock::time_point, uint64_t>;

  class Watcher {
   public:
    virtual ~Watcher() = default;
    // events: the EPOLL... bits that are true now.
    virtual void on_ready(uint32_t events) = 0;
  };

  // Throws std::system_error where the kernel refuses a descriptor.
  EventLoop();

  void watch(int fd, uint32_t events, Watcher& watcher);
  void change(int fd, uint32_t events, Watcher& watcher);
  void unwatch(int fd, Watcher& watcher);

  TimerId after(Clock::duration delay, Task task);
  // A timer that has run or was cancelled already is left alone.
  void cancel(const TimerId& timer) { pending_timers_.erase(timer); }

  // Runs the task after the events that epoll has returned, when a watcher can be destroyed. A task that a posted task
  // posts runs after the events of the next round.
  void post(Task task) { posted_.push_back(std::move(task)); }

  // Runs at the end of each round of events, and again, once what it has posted has run, as long as it returns true.
  // lacked_memory: a call of this round has thrown std::bad_alloc, which gives up that call only.
  void after_each_round(std::function<bool(bool lacked_memory)> task) { after_round_ = std::move(task); }

  void run();
  void stop() { running_ = false; }

 private:
  template <typename F>
  void attempt(const F& call);
  bool has_due_timer() const;
  void arm_timer();
  void run_due_timers();
  void run_posted();

  static constexpr int kBatch = 64;

  UniqueFd epoll_;
  UniqueFd timer_fd_;
  std::map<TimerId, Task> pending_timers_;
  uint64_t last_timer_ = 0;
  std::vector<Task> posted_;
  std::function<bool(bool)> after_round_;
  bool lacked_memory_ = false;
  epoll_event batch_[kBatch];
  int batch_size_ = 0;
  bool running_ = false;
};

}  // namespace pelmar::sim
