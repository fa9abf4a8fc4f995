#include "modem_thread.h"

#include <utility>

namespace pelmar::cli {

namespace {

// For a last call to a modem that is there. Less than a command has to end when its time is up.
constexpr std::chrono::milliseconds kPatience{300};

}  // namespace

ModemThread::~ModemThread() {
  if (thread_.joinable()) thread_.join();
}

void ModemThread::start(std::function<void()> call) {
  if (thread_.joinable()) thread_.join();
  is_busy_ = true;
  thread_ = std::thread([this, call = std::move(call)] {
    call();
    {
      const std::lock_guard lock(mutex_);
      is_busy_ = false;
      ended_.notify_all();
    }
    context_.inbox.wake();
  });
}

bool ModemThread::wait(std::optional<Clock::time_point> deadline) const {
  context_.inbox.pause_until(deadline, [this] { return !is_busy_; });
  return !is_busy_;
}

void ModemThread::run(const std::function<void()>& command) {
  const Signals::Follower ends_by_itself(context_.signals);
  std::optional<Failure> failure;
  try {
    command();
  } catch (const Failure& caught) {
    failure = caught;
  }
  std::unique_lock lock(mutex_);
  if (!ended_.wait_for(lock, kPatience, [this] { return !is_busy_; })) context_.signals.end(failure);
  if (failure) throw *failure;
}

}  // namespace pelmar::cli
