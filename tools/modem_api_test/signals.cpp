#include "signals.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>

#include <chrono>
#include <cstdlib>

#include "failure.h"

namespace pelmar::cli {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr std::chrono::seconds kFollowerGrace{2};

sigset_t all_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kSignals) sigaddset(&set, signal);
  return set;
}

}  // namespace

void Signals::block() {
  const sigset_t set = all_signals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);  // told as a failed write
}

Signals::Signals(Inbox& inbox, std::function<void()> clean_up) : inbox_(inbox), clean_up_(std::move(clean_up)) {
  const sigset_t set = all_signals();
  signals_.reset(signalfd(-1, &set, SFD_CLOEXEC));
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
  poll(fds, 2, -1);
  signalfd_siginfo info{};
  if (fds[0].revents == 0 || read(signals_.get(), &info, sizeof info) != sizeof info) return;
  end_process(static_cast<int>(info.ssi_signo));
}

void Signals::end_process(int signal) {
  const sigset_t set = all_signals();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);  // the second one takes the default action
  inbox_.interrupt();
  std::unique_lock lock(mutex_);
  caught_ = signal;
  if (followers_ > 0) changed_.wait_for(lock, kFollowerGrace, [this] { return is_finished_; });
  if (is_finished_) return;
  clean_up_();
  exit(128 + signal);
}

void Signals::count_followers(int change) {
  const std::lock_guard lock(mutex_);
  followers_ += change;
}

}  // namespace pelmar::cli
