#include "io/event_loop.h"

#include <sys/timerfd.h>

#include <cerrno>
#include <new>
#include <system_error>

namespace pelmar::sim {

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

EventLoop::EventLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)), timer_fd_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (!epoll_) fail("epoll_create1");
  if (!timer_fd_) fail("timerfd_create");
  // Edge-triggered, so the timer need not be read. It has no watcher: it only wakes epoll_wait().
  epoll_event event{EPOLLIN | EPOLLET, {nullptr}};
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, timer_fd_.get(), &event) != 0) fail("epoll_ctl");
}

void EventLoop::watch(int fd, uint32_t events, Watcher& watcher) {
  epoll_event event{events, {&watcher}};
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
}

void EventLoop::change(int fd, uint32_t events, Watcher& watcher) {
  epoll_event event{events, {&watcher}};
  epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event);
}

void EventLoop::unwatch(int fd, Watcher& watcher) {
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  for (int i = 0; i < batch_size_; ++i) {
    if (batch_[i].data.ptr == &watcher) batch_[i].data.ptr = nullptr;
  }
}

EventLoop::TimerId EventLoop::after(Clock::duration delay, Task task) {
  TimerId id{Clock::now() + delay, ++last_timer_};
  const auto place = pending_timers_.emplace(id, std::move(task)).first;
  if (place == pending_timers_.begin()) arm_timer();
  return id;
}

void EventLoop::run() {
  running_ = true;
  while (running_) {
    const bool is_timer_due = has_due_timer();
    batch_size_ = epoll_wait(epoll_.get(), batch_, kBatch, is_timer_due || !posted_.empty() ? 0 : -1);
    if (batch_size_ < 0 && errno != EINTR) fail("epoll_wait");
    for (int i = 0; i < batch_size_; ++i) {
      auto* const watcher = static_cast<Watcher*>(batch_[i].data.ptr);
      if (watcher != nullptr) {
        attempt([&] { watcher->on_ready(batch_[i].events); });
      } else {
        run_due_timers();  // the timer's event, or that of a watcher which is gone
      }
    }
    batch_size_ = 0;
    if (is_timer_due) run_due_timers();
    run_posted();
    while (after_round_ && after_round_(std::exchange(lacked_memory_, false))) run_posted();
  }
}

// A call that lacks memory must not end the process, which serves others.
template <typename F>
void EventLoop::attempt(const F& call) {
  try {
    call();
  } catch (const std::bad_alloc&) {
    lacked_memory_ = true;
  }
}

// What a task posts runs in the next round, so that tasks which always post another one keep no client waiting.
void EventLoop::run_posted() {
  const std::vector<Task> tasks = std::exchange(posted_, {});
  for (const Task& task : tasks) attempt(task);
}

bool EventLoop::has_due_timer() const {
  return !pending_timers_.empty() && pending_timers_.begin()->first.first <= Clock::now();
}

// A timer that is due already needs no wake-up: run() looks for one before it waits.
void EventLoop::arm_timer() {
  if (pending_timers_.empty()) return;
  const std::chrono::nanoseconds wait = pending_timers_.begin()->first.first - Clock::now();
  if (wait.count() < 1) return;
  itimerspec expiry{};
  expiry.it_value.tv_sec = wait.count() / 1'000'000'000;
  expiry.it_value.tv_nsec = wait.count() % 1'000'000'000;
  timerfd_settime(timer_fd_.get(), 0, &expiry, nullptr);
}

void EventLoop::run_due_timers() {
  const auto now = Clock::now();
  while (!pending_timers_.empty() && pending_timers_.begin()->first.first <= now) {
    Task task = std::move(pending_timers_.begin()->second);
    pending_timers_.erase(pending_timers_.begin());
    attempt(task);
  }
  arm_timer();
}

}  // namespace pelmar::sim
