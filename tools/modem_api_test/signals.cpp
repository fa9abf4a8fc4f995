#include "signals.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>

#include "failure.h"
#include "output.h"

namespace pelmar::cli {

namespace {

constexpr std::chrono::milliseconds kFollowerGrace{2000};
constexpr std::chrono::milliseconds kTimeUpGrace{500};

const sigset_t kSignals = [] {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
  return set;
}();

std::atomic<int> early_status{-1};  // of a process that does not wait for all its threads

// Called at exit, after the handlers that were registered later.
void end_without_flush() {
  if (early_status >= 0) _exit(early_status);
}

[[noreturn]] void leave(int status) {
  early_status = status;
  exit(status);
}

}  // namespace

void Signals::block() {
  atexit(end_without_flush);
  pthread_sigmask(SIG_BLOCK, &kSignals, nullptr);
  signal(SIGPIPE, SIG_IGN);  // the write returns an error instead
}

Signals::Signals(Inbox& inbox, std::function<void()> clean_up, uint32_t seconds, Conclude conclude)
    : inbox_(inbox),
      clean_up_(std::move(clean_up)),
      deadline_(deadline_after(seconds)),
      conclude_(std::move(conclude)) {
  signals_.reset(signalfd(-1, &kSignals, SFD_CLOEXEC));
  finish_.reset(eventfd(0, EFD_CLOEXEC));
  if (!signals_ || !finish_) throw Failure::of_system("watching for signals");
  thread_ = std::thread([this] { run(); });
}

Signals::~Signals() {
  finish();
}

int Signals::finish() {
  {
    const std::lock_guard lock(mutex_);
    is_finished_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable()) {
    eventfd_write(finish_.get(), 1);
    thread_.join();
  }
  return caught_;
}

void Signals::run() {
  pollfd fds[] = {{signals_.get(), POLLIN, 0}, {finish_.get(), POLLIN, 0}};
  while (poll(fds, 2, milliseconds_left()) == 0) {
    if (Clock::now() >= *deadline_) return end_process(kTimeUp);
  }
  signalfd_siginfo info{};
  if (fds[0].revents == 0 || read(signals_.get(), &info, sizeof info) != sizeof info) return;
  end_process(static_cast<int>(info.ssi_signo));
}

// For poll(): -1 is for ever. A millisecond more than is left, so that it does not end early.
int Signals::milliseconds_left() const {
  if (!deadline_) return -1;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline_ - Clock::now()).count() + 1;
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

void Signals::end_process(int reason) {
  pthread_sigmask(SIG_UNBLOCK, &kSignals, nullptr);  // the second one takes the default action
  inbox_.interrupt();
  stop_waiting_for_readers();
  std::unique_lock lock(mutex_);
  const bool is_time_up = reason == kTimeUp;
  caught_ = reason;
  if (followers_ > 0) {
    changed_.wait_for(lock, is_time_up ? kTimeUpGrace : kFollowerGrace, [this] { return is_finished_; });
  }
  if (is_finished_) return;
  if (!is_time_up) clean_up_();
  leave(conclude_(std::nullopt, reason));
}

void Signals::end(const std::optional<Failure>& failure) {
  const int caught = finish();
  leave(conclude_(failure, caught));
}

void Signals::count_followers(int change) {
  const std::lock_guard lock(mutex_);
  followers_ += change;
}

}  // namespace pelmar::cli
