#include "notifier.h"

#include <poll.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "qmi_idl_lib_internal.h"
#include "rules.h"

namespace pelmar::platform {

// The longest time until the notifier sees that a service came or went, if the modem does not report it.
constexpr Deadline::Milliseconds kInterval{200};

// If a look finds that the service or the link was lost since the look before, the notifier waits before the next one.
// The wait doubles up to kInterval, because a peer may close every link at once.
constexpr Deadline::Milliseconds kFirstWait{10};

// A connection that lives this long is a lasting one.
constexpr ServiceBackoff::Duration kLasting = std::chrono::milliseconds(100);
constexpr ServiceBackoff::Duration kFirstPause = std::chrono::milliseconds(10);
constexpr ServiceBackoff::Duration kLongestPause = std::chrono::seconds(1);

ServiceBackoff& ServiceBackoff::of(uint32_t service) {
  constinit static ServiceBackoff all[UINT8_MAX + 1];
  return all[service % std::size(all)];
}

void ServiceBackoff::lost(Duration lifetime) {
  if (lifetime >= kLasting) return released(lifetime);
  if (remaining().count() > 0) return;  // another connection was lost in this pause; count it once
  pause_ = std::clamp(2 * pause_.load(), kFirstPause, kLongestPause);
  held_until_ = Deadline::Clock::now().time_since_epoch() + pause_.load();
}

void ServiceBackoff::released(Duration lifetime) {
  if (lifetime < kLasting) return;
  pause_ = Duration(0);
  held_until_ = Duration(0);
}

Deadline::Milliseconds ServiceBackoff::remaining() const {
  const Duration rest = held_until_.load() - Deadline::Clock::now().time_since_epoch();
  return std::max(Deadline::Milliseconds(0), std::chrono::ceil<Deadline::Milliseconds>(rest));
}

Notifier::Notifier(qmi_idl_service_object_type service, qmi_client_type handle)
    : service_(service),
      watch_(watch_service(service->service_id)),
      backoff_(ServiceBackoff::of(service->service_id)),
      handle_(handle) {}

int32_t Notifier::register_callback(qmi_client_notify_cb function, void* data) {
  if (function == nullptr) return QMI_CLIENT_PARAM_ERR;
  Lock lock(mutex_);
  function_ = function;
  data_ = data;
  const bool is_first = !std::exchange(is_registered_, true);
  if (is_first) {
    lock.unlock();
    const bool is_there = watch_->look().is_there;
    lock.lock();
    is_there_ = is_there;
  }
  if (is_there_ && backoff_.remaining().count() > 0) {
    is_there_ = false;  // the thread announces the service
    thread_.wake();
  }
  if (is_there_ && !is_stopping_) {
    lock.unlock();
    const bool goes_on = caller_callbacks_.run([&] { call(function, QMI_CLIENT_SERVICE_COUNT_INC, data); });
    if (!goes_on) return QMI_CLIENT_INVALID_CLNT;
    lock.lock();
  }
  // The callback may have released the handle.
  if (is_first && !is_stopping_) thread_.start([self = shared_from_this()] { self->run(); });
  return QMI_NO_ERR;
}

void Notifier::run() {
  Deadline::Milliseconds wait{0};
  bool is_announced = true;  // the callback has the state that the last look found
  Lock lock(mutex_);
  while (!is_stopping_) {
    lock.unlock();
    wait_for_news(wait, is_announced);
    lock.lock();
    if (is_stopping_) return;
    lock.unlock();
    const Presence presence = watch_->look();
    lock.lock();
    wait = presence.went_meanwhile ? std::clamp(2 * wait, kFirstWait, kInterval) : Deadline::Milliseconds(0);
    if (presence.went_meanwhile && is_there_) notify(lock, false);
    if (presence.is_there != is_there_ && (is_there_ || backoff_.remaining().count() == 0))
      notify(lock, presence.is_there);
    is_announced = presence.is_there == is_there_;
  }
}

void Notifier::notify(Lock& lock, bool is_there) {
  if (is_stopping_) return;
  is_there_ = is_there;
  const auto function = function_;
  void* const data = data_;
  lock.unlock();
  FrameworkThread::run_callback(
      [&] { call(function, is_there ? QMI_CLIENT_SERVICE_COUNT_INC : QMI_CLIENT_SERVICE_COUNT_DEC, data); });
  lock.lock();
}

void Notifier::call(qmi_client_notify_cb function, qmi_client_notify_event_type event, void* data) const {
  const RunningCallback running(this, "the notify callback");
  function(handle_, service_, event, data);
}

void Notifier::wait_for_news(Deadline::Milliseconds wait, bool is_announced) {
  const Deadline::Milliseconds pause = backoff_.remaining();
  auto limit = pause.count() > 0 ? std::min(pause, kInterval) : kInterval;
  if (is_announced && watch_->reports_all()) limit = Deadline::Milliseconds(-1);  // no limit
  pollfd wait_for[] = {{thread_.descriptor(), POLLIN, 0}, {watch_->descriptor(), POLLIN, 0}};
  if (wait.count() > 0) ::poll(wait_for, 1, static_cast<int>(wait.count()));
  ::poll(wait_for, std::size(wait_for), static_cast<int>(limit.count()));
  thread_.acknowledge();
}

void Notifier::release() {
  if (const char* const callback = phone_rules() ? RunningCallback::of(this) : nullptr) {
    end_blocked_process(service_->service_id, "qmi_client_release", callback,
                        "Release the handle on another thread, which may wait for the callback.");
  }
  {
    const Lock lock(mutex_);
    is_stopping_ = true;
    thread_.wake();
  }
  const bool is_own_callback = thread_.is_current();
  thread_.finish();
  if (!is_own_callback) caller_callbacks_.wait_for_others();
}

}  // namespace pelmar::platform
