#include "voter.h"

#include <chrono>

namespace pelmar::platform::power {
namespace {

// The manager sends the next event when the last one was acknowledged or is overdue. So many that wait for a callback
// are no manager's.
constexpr size_t kMostEvents = 256;

}  // namespace

int Voter::enrol(const std::string& socket, const Register& names, pm_event& state) {
  const Deadline deadline = Deadline::after(kAnswerTimeout);
  Reply reply;
  if (!link_.open(socket, deadline) || !link_.send(names)) return PM_RET_FAILED;
  if (!link_.receive(reply, deadline)) return PM_RET_FAILED;
  const auto* const answer = std::get_if<Answer>(&reply);
  if (answer == nullptr) return PM_RET_FAILED;
  state = answer->state;
  return answer->result;
}

void Voter::start() {
  // Held until both threads are stored: the callback's asks who it is when it ends the voter.
  const Lock lock(mutex_);
  if (is_ending_) return;  // somebody was faster with the handle
  reader_.start([self = shared_from_this()] { self->read(); });
  caller_.start([self = shared_from_this()] { self->run_callbacks(); });
}

int Voter::ask(const Request& request) {
  const std::lock_guard turn(asking_);
  {
    const Lock lock(mutex_);
    if (is_lost_) return PM_RET_FAILED;
    is_answer_due_ = true;
    answer_.reset();
  }
  if (!send(request)) return PM_RET_FAILED;
  Lock lock(mutex_);
  const auto is_settled = [this] { return answer_ || is_lost_; };
  // An answer that comes later would be taken for that to the next question.
  if (!answered_.wait_for(lock, std::chrono::milliseconds(kAnswerTimeout), is_settled)) lose();
  is_answer_due_ = false;
  return answer_.value_or(PM_RET_FAILED);
}

bool Voter::send(const Request& request) {
  const std::lock_guard turn(sending_);
  if (link_.send(request)) return true;
  const Lock lock(mutex_);
  lose();
  return false;
}

void Voter::read() {
  Reply reply;
  while (link_.receive(reply, Deadline::none())) {
    const Lock lock(mutex_);
    if (!take(reply)) break;
  }
  const Lock lock(mutex_);
  lose();
}

// False for what no manager sends to a voter.
bool Voter::take(const Reply& reply) {
  if (const auto* const event = std::get_if<Event>(&reply)) {
    if (events_.size() == kMostEvents) return false;
    events_.push_back(event->event);
    event_came_.notify_one();
    return true;
  }
  const auto* const answer = std::get_if<Answer>(&reply);
  if (answer == nullptr || !is_answer_due_ || answer_) return false;
  answer_ = answer->result;
  answered_.notify_one();
  return true;
}

// Needs the mutex.
void Voter::lose() {
  is_lost_ = true;
  link_.shut_down();
  answered_.notify_one();
}

void Voter::run_callbacks() {
  Lock lock(mutex_);
  for (;;) {
    event_came_.wait(lock, [this] { return is_ending_ || !events_.empty(); });
    if (is_ending_) return;
    const pm_event event = events_.front();
    events_.pop_front();
    lock.unlock();
    FrameworkThread::run_callback([&] { callback_.function(callback_.data, event); });
    lock.lock();
  }
}

void Voter::end() {
  {
    const Lock lock(mutex_);
    is_ending_ = true;
    event_came_.notify_one();
  }
  ask(Unregister{});  // a lost manager has taken the vote back already
  link_.shut_down();
  reader_.finish();
  caller_.finish();
}

}  // namespace pelmar::platform::power
