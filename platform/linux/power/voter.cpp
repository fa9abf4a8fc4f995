// The functions of the peripheral manager's client as the phone declares them, and the voter behind each handle.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "handle.h"
#include "manager_link.h"
#include "platform_export.h"
#include "pm-service.h"

namespace pelmar::platform::power {
namespace {

// The manager sends the next event after the last one was acknowledged, or after a time-out. A manager
// never queues this many, so a peer that sends more is broken.
constexpr size_t kMostEvents = 256;

struct Callback {
  pm_client_event_cb function;
  void* data;
};

// A registered voter: its connection to the peripheral manager, and its callback.
//
// Two threads serve it. One reads what the manager sends: it passes responses to the caller that waits for one, and
// events to a queue. The other runs the callback, event by event, without a lock, so that a callback may use its own
// handle. If the manager is lost, the current call and all later ones fail; a process that needs a vote must
// register again.
class Voter : public std::enable_shared_from_this<Voter> {
 public:
  explicit Voter(Callback callback) : callback_(callback) {}

  // These functions return PM_RET_*.

  // No event comes before start().
  int register_at_manager(const std::string& socket, const Register& names, pm_event& state) {
    const Deadline deadline = Deadline::after(kResponseTimeout);
    Reply reply;
    if (socket.empty() || !link_.open(socket, deadline) || !link_.send(names)) return PM_RET_FAILED;
    if (!link_.receive(reply, deadline)) return PM_RET_FAILED;
    const auto* const response = std::get_if<VoterResponse>(&reply);
    if (response == nullptr) return PM_RET_FAILED;
    state = response->state;
    return response->result;
  }

  void start() {
    // Held until both threads are stored, because the callback's thread may use caller_.is_current() to end the voter.
    const Lock lock(mutex_);
    if (is_ending_) return;  // another thread has unregistered the handle already
    try {
      reader_.start([self = shared_from_this()] { self->read(); });
      caller_.start([self = shared_from_this()] { self->run_callbacks(); });
    } catch (...) {
      lose();  // end() must not wait for a response that nobody reads
      throw;
    }
  }

  int vote() { return exchange(Vote{}); }
  int withdraw() { return exchange(Withdraw{}); }
  int acknowledge(pm_event event) { return send(Acknowledge{event}) ? PM_RET_SUCCESS : PM_RET_FAILED; }

  // Withdraws the vote and ends the registration. Returns after the last callback has returned; called from the
  // callback, it does not wait for that one.
  void end() {
    {
      const Lock lock(mutex_);
      is_ending_ = true;
      event_came_.notify_one();
    }
    exchange(Unregister{});  // a lost manager has withdrawn the vote already
    link_.shut_down();
    reader_.finish();
    caller_.finish();
  }

 private:
  using Lock = std::unique_lock<std::mutex>;

  int exchange(const Request& request) {
    const std::lock_guard turn(exchanging_);
    {
      const Lock lock(mutex_);
      if (is_lost_) return PM_RET_FAILED;
      result_.reset();
    }
    if (!send(request)) return PM_RET_FAILED;
    Lock lock(mutex_);
    const auto is_settled = [this] { return result_ || is_lost_; };
    // A later response would be taken for that of the next request, so the manager counts as lost.
    if (!responded_.wait_for(lock, std::chrono::milliseconds(kResponseTimeout), is_settled)) lose();
    return result_.value_or(PM_RET_FAILED);
  }

  bool send(const Request& request) {
    const std::lock_guard turn(sending_);
    if (link_.send(request)) return true;
    const Lock lock(mutex_);
    lose();
    return false;
  }

  void read() {
    Reply reply;
    while (link_.receive(reply, Deadline::none())) {
      const Lock lock(mutex_);
      if (!take(reply)) break;
    }
    const Lock lock(mutex_);
    lose();
  }

  // False for a reply that a manager does not send to a voter.
  bool take(const Reply& reply) {
    if (const auto* const event = std::get_if<Event>(&reply)) {
      if (events_.size() == kMostEvents) return false;
      events_.push_back(event->event);
      event_came_.notify_one();
      return true;
    }
    const auto* const response = std::get_if<VoterResponse>(&reply);
    if (response == nullptr || result_) return false;
    result_ = response->result;
    responded_.notify_one();
    return true;
  }

  // REQUIRES: the mutex is held.
  void lose() {
    is_lost_ = true;
    link_.shut_down();
    responded_.notify_one();
  }

  void run_callbacks() {
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

  const Callback callback_;
  ManagerLink link_;

  std::mutex exchanging_;  // one request at a time waits, because responses have no numbers
  std::mutex sending_;

  std::mutex mutex_;  // guards the following
  std::condition_variable responded_;
  std::condition_variable event_came_;
  bool is_lost_ = false;
  bool is_ending_ = false;
  std::optional<int> result_ = PM_RET_FAILED;  // empty while a request waits for its response
  std::deque<pm_event> events_;

  FrameworkThread reader_;
  FrameworkThread caller_;
};

HandleTable<Voter, void*>& voters() {
  return HandleTable<Voter, void*>::of_this_process();
}

int register_voter(const Callback& callback, const Register& names, pm_event* state, void** handle) {
  if (!is_good_name(names.device) || !is_good_name(names.voter)) return PM_RET_FAILED;
  const auto voter = std::make_shared<Voter>(callback);
  pm_event found = EVENT_PERIPH_IS_OFFLINE;
  const int result = voter->register_at_manager(manager_socket(), names, found);
  if (result != PM_RET_SUCCESS) return result;

  void* const own = new_handle<void*>();
  void* const before = __atomic_load_n(handle, __ATOMIC_ACQUIRE);
  voters().add(own, voter);
  if (state != nullptr) *state = found;
  // Stored before a callback can use it. A callback of an earlier registration may read it meanwhile.
  __atomic_store_n(handle, own, __ATOMIC_RELEASE);
  try {
    voter->start();
  } catch (...) {
    __atomic_store_n(handle, before, __ATOMIC_RELEASE);
    voters().remove(own);
    voter->end();
    throw;
  }
  return PM_RET_SUCCESS;
}

template <typename Operation>
int with_voter(void* handle, Operation operation) {
  const auto voter = voters().find(handle);
  return voter != nullptr ? guarded(PM_RET_FAILED, [&] { return operation(*voter); }) : PM_RET_FAILED;
}

}  // namespace
}  // namespace pelmar::platform::power

using namespace pelmar::platform::power;
using pelmar::platform::guarded;

extern "C" {

PELMAR_PLATFORM_EXPORT int pm_client_register(pm_client_event_cb cb, void* client_data, const char* device_name,
                                              const char* client_name, enum pm_event* state, void** handle) {
  if (cb == nullptr || device_name == nullptr || client_name == nullptr || handle == nullptr) return PM_RET_FAILED;
  return guarded(PM_RET_FAILED, [&] {
    return register_voter({cb, client_data}, {device_name, client_name}, state, handle);
  });
}

PELMAR_PLATFORM_EXPORT int pm_client_connect(void* handle) {
  return with_voter(handle, [](Voter& voter) { return voter.vote(); });
}

PELMAR_PLATFORM_EXPORT int pm_client_disconnect(void* handle) {
  return with_voter(handle, [](Voter& voter) { return voter.withdraw(); });
}

PELMAR_PLATFORM_EXPORT int pm_client_unregister(void* handle) {
  const auto voter = voters().remove(handle);
  if (voter == nullptr) return PM_RET_FAILED;
  voter->end();
  return PM_RET_SUCCESS;
}

PELMAR_PLATFORM_EXPORT int pm_client_event_acknowledge(void* handle, enum pm_event event) {
  if (event < EVENT_PERIPH_GOING_OFFLINE || event > EVENT_PERIPH_IS_ONLINE) return PM_RET_FAILED;
  return with_voter(handle, [event](Voter& voter) { return voter.acknowledge(event); });
}

}  // extern "C"
