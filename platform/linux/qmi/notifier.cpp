#include "notifier.h"

#include <poll.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "qmi_idl_lib_internal.h"

namespace pelmar::platform {
namespace {

// How long a service may have come or gone before it is noticed, where the transport does not report it.
constexpr Deadline::Milliseconds kInterval{200};

// The rest before the next look after one that found that the service, or the link to the modem, went meanwhile. It
// grows up to kInterval, for a peer that ends each link at once.
constexpr Deadline::Milliseconds kFirstRest{10};

}  // namespace

Notifier::Notifier(qmi_idl_service_object_type service, std::unique_ptr<ServiceWatch> watch, qmi_client_type handle)
    : service_(service), watch_(std::move(watch)), pace_(ServicePace::of(service->service_id)), handle_(handle) {}

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
  if (is_there_ && pace_.remaining().count() > 0) {
    is_there_ = false;  // the thread announces it
    thread_.wake();
  }
  if (is_there_ && !is_stopping_) {
    lock.unlock();
    const bool goes_on =
        caller_callbacks_.run([&] { function(handle_, service_, QMI_CLIENT_SERVICE_COUNT_INC, data); });
    if (!goes_on) return QMI_CLIENT_INVALID_CLNT;
    lock.lock();
  }
  // The callback may have led to the handle's release.
  if (is_first && !is_stopping_) thread_.start([self = shared_from_this()] { self->run(); });
  return QMI_NO_ERR;
}

void Notifier::run() {
  Deadline::Milliseconds rest{0};
  Lock lock(mutex_);
  while (!is_stopping_) {
    lock.unlock();
    wait_for_news(rest);
    lock.lock();
    if (is_stopping_) return;
    lock.unlock();
    const Presence presence = watch_->look();
    lock.lock();
    rest = presence.went_meanwhile ? std::clamp(2 * rest, kFirstRest, kInterval) : Deadline::Milliseconds(0);
    if (presence.went_meanwhile && is_there_) notify(lock, false);
    if (presence.is_there != is_there_ && (is_there_ || pace_.remaining().count() == 0))
      notify(lock, presence.is_there);
  }
}

void Notifier::notify(Lock& lock, bool is_there) {
  if (is_stopping_) return;
  is_there_ = is_there;
  const auto function = function_;
  void* const data = data_;
  lock.unlock();
  FrameworkThread::run_callback([&] {
    function(handle_, service_, is_there ? QMI_CLIENT_SERVICE_COUNT_INC : QMI_CLIENT_SERVICE_COUNT_DEC, data);
  });
  lock.lock();
}

void Notifier::wait_for_news(Deadline::Milliseconds rest) {
  const Deadline::Milliseconds pause = pace_.remaining();
  const auto limit = pause.count() > 0 ? std::min(pause, kInterval) : kInterval;
  pollfd wait_for[] = {{thread_.descriptor(), POLLIN, 0}, {watch_->descriptor(), POLLIN, 0}};
  if (rest.count() > 0) ::poll(wait_for, 1, static_cast<int>(rest.count()));
  if (::poll(wait_for, std::size(wait_for), static_cast<int>(limit.count())) > 0 && wait_for[0].revents != 0) {
    thread_.acknowledge();
  }
}

void Notifier::release() {
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
