// The thread of a client handle, its callbacks and its release.
#include "client.h"

#include <sys/epoll.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "notifier.h"
#include "observer.h"
#include "qmi_codec.h"
#include "qmi_idl_lib_internal.h"

namespace pelmar::platform {
namespace {

// The longest wait of a release for the modem's response to the release of the client id.
constexpr Deadline::Milliseconds kEndTimeout{500};

void add_to_poll(int poll, int descriptor, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  if (::epoll_ctl(poll, EPOLL_CTL_ADD, descriptor, &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
}

}  // namespace

Client::Client(qmi_idl_service_object_type service, IndicationCallback indication,
               std::unique_ptr<Connection> connection, qmi_client_type handle)
    : service_(service), indication_(indication), connection_(std::move(connection)), handle_(handle), poll_([] {
        return ::epoll_create1(EPOLL_CLOEXEC);
      }) {
  if (!poll_) throw std::system_error(errno, std::generic_category(), "epoll_create1");
}

Client::~Client() {
  if (!is_gone_) ServiceBackoff::of(service_->service_id).released(Deadline::Clock::now() - connected_);
}

void Client::start() {
  // Held until the thread is stored, because the thread may use thread_.is_current() at once.
  const Lock lock(mutex_);
  add_to_poll(poll_.get(), thread_.descriptor(), EPOLLIN);
  add_to_poll(poll_.get(), connection_->descriptor(), EPOLLONESHOT);
  dispatch_arrivals();  // bytes that arrived together with the client id
  if (!is_gone_) poll_connection(true);
  if (has_phone_rules_) connection_->expect_response(true);  // the thread reads for every sender
  thread_.start([self = shared_from_this()] { self->run(); });
}

void Client::run() {
  Lock lock(mutex_);
  while (!is_stopping_) {
    if (is_gone_ && !is_ended_) {
      end_lost_connection(lock);
    } else if (!events_.empty()) {
      const Event event = take_event();
      handle(event, lock);
    } else if (is_error_due_) {
      is_error_due_ = false;
      const auto function = error_function_;
      void* const data = error_data_;
      lock.unlock();
      FrameworkThread::run_callback([&] {
        const RunningCallback running(this, "the error callback");
        function(handle_, QMI_SERVICE_ERR, data);
      });
      lock.lock();
    } else {
      wait_for_work(lock);
    }
  }
  if (!run_ends_connection_) return;  // the thread that releases the handle ends the connection
  lock.unlock();
  end_connection(Deadline::after(kEndTimeout));
}

Client::Event Client::take_event() {
  Event event = std::move(events_.front());
  events_.pop_front();
  waiting_bytes_ -= waiting_bytes_of(event);
  if (std::holds_alternative<Transaction>(event)) --async_count_;
  return event;
}

void Client::handle(const Event& event, Lock& lock) {
  if (const auto* const response = std::get_if<Response>(&event)) {
    Message message = response->message;
    message.tlvs = response->tlvs;
    return dispatch_response(message);
  }
  const size_t dropped = std::exchange(dropped_, 0);
  lock.unlock();
  if (dropped > 0) {
    syslog(LOG_WARNING, "QMI service 0x%02x: a client's callbacks are too slow, %zu indications were dropped",
           static_cast<unsigned>(service_->service_id), dropped);
  }
  FrameworkThread::run_callback([&] { deliver(event); });
  lock.lock();
  if (!has_phone_rules_) return;
  const auto* const transaction = std::get_if<Transaction>(&event);
  if (transaction != nullptr && is_lost(*transaction) && --losses_due_ == 0) send_ended_.notify_all();
  take_in_arrivals();
}

void Client::wait_for_work(Lock& lock) {
  is_idle_ = true;
  const int limit = limit_of_wait();
  lock.unlock();
  std::array<epoll_event, 2> ready{};
  const int count = ::epoll_wait(poll_.get(), ready.data(), static_cast<int>(ready.size()), limit);
  lock.lock();
  is_idle_ = false;
  const bool reads = reader_ == nullptr && !is_stopping_ && !is_gone_;
  if (count == 0 && reads) dispatch_arrivals();
  if (pause_.take_end() && reads) poll_connection(true);
  for (int i = 0; i < count; ++i) {
    if (ready[static_cast<size_t>(i)].data.fd == thread_.descriptor()) {
      thread_.acknowledge();
      continue;
    }
    is_polled_ = false;  // the poll reports once
    if (reader_ != nullptr || is_stopping_ || is_gone_) continue;
    const ReadStatus status = connection_->read(Deadline::now());
    dispatch_arrivals();
    if (status == ReadStatus::kGone) service_gone();
    if (!is_gone_) poll_connection(true);
  }
}

// In milliseconds; -1: no limit. The thread that reads also delivers the responses that the connection keeps back.
int Client::limit_of_wait() const {
  if (is_gone_) return -1;
  if (pause_.is_timed()) return static_cast<int>(ReadingPause::kLength.count());
  const Deadline limit = connection_->kept_until();
  return reader_ != nullptr || limit.is_none() ? -1 : static_cast<int>(limit.remaining().count());
}

void Client::deliver(const Event& event) const {
  if (const auto* const indication = std::get_if<Indication>(&event)) {
    if (indication_.function == nullptr) return;
    const RunningCallback running(this, "an indication callback");
    // The interface takes writable bytes; these are the event's own copy.
    indication_.function(handle_, indication->id, const_cast<uint8_t*>(indication->tlvs.data()),
                         static_cast<unsigned>(indication->tlvs.size()), indication_.data);
    return;
  }
  const auto& transaction = std::get<Transaction>(event);
  const RunningCallback running(this, is_lost(transaction) ? kLossCallback : "a response callback");
  call(transaction);
}

void Client::call(const Transaction& transaction) const {
  observe_end(transaction.result, transaction.request.response, transaction.request.response_length);
  transaction.callback.function(handle_, transaction.request.id, transaction.request.response,
                                static_cast<unsigned>(transaction.reported_length), transaction.callback.data,
                                transaction.result);
}

int32_t Client::register_error_callback(qmi_client_error_cb function, void* data) {
  if (has_phone_rules_ && function == nullptr) return QMI_CLIENT_PARAM_ERR;
  {
    const Lock lock(mutex_);
    error_function_ = function;
    error_data_ = data;
    if (!is_gone_) return QMI_NO_ERR;
    is_error_due_ = false;
  }
  const auto call = [&] {
    const RunningCallback running(this, "the error callback");
    function(handle_, QMI_SERVICE_ERR, data);
  };
  if (function != nullptr && !caller_callbacks_.run(call)) return QMI_CLIENT_INVALID_CLNT;
  return QMI_SERVICE_ERR;
}

int32_t Client::decode(qmi_idl_type_of_message_type type, uint16_t id, const void* bytes, size_t length,
                       void* structure, size_t structure_length) const {
  return qmi::decode(service_, type, id, static_cast<const uint8_t*>(bytes), length, structure, structure_length);
}

void Client::release() {
  if (const char* const callback = has_phone_rules_ ? RunningCallback::of(this) : nullptr) {
    end_blocked_process(service_->service_id, "qmi_client_release", callback,
                        "Release the handle on another thread, which may wait for the callback.");
  }
  std::vector<Transaction> pending;
  {
    const Lock lock(mutex_);
    is_stopping_ = true;
    for (const Event& event : events_) {
      if (const auto* const transaction = std::get_if<Transaction>(&event)) pending.push_back(*transaction);
    }
    while (!transactions_.empty()) pending.push_back(take(transactions_.begin()));
    while (!waiters_.empty()) finish(*waiters_.back(), released_error());
    send_ended_.notify_all();
    thread_.wake();
  }
  if (thread_.is_current()) {
    run_ends_connection_ = true;
    thread_.detach();
    return;
  }
  thread_.finish();
  caller_callbacks_.wait_for_others();
  if (has_phone_rules_) {
    for (Transaction& transaction : pending) {
      transaction.reported_length = 0;
      if (!is_lost(transaction)) transaction.result = QMI_INTERNAL_ERR;
      call(transaction);
    }
  }
  end_connection(Deadline::after(kEndTimeout));
}

void Client::release_at_exit(const Deadline& deadline) {
  {
    const Lock lock(mutex_);
    if (std::exchange(is_stopping_, true)) return;  // a release is under way
    thread_.detach();
  }
  end_connection(deadline);
}

// Runs before the callbacks that report the loss: the handles that they open may need the client id. No send can begin
// any more, and a current one ends soon.
void Client::end_lost_connection(Lock& lock) {
  send_ended_.wait(lock, [this] { return !is_sending_; });
  if (std::exchange(is_ended_, true)) return;
  is_sending_ = true;
  lock.unlock();
  connection_->abandon(Deadline::after(kEndTimeout));
  lock.lock();
  end_send();
}

// No send can begin any more, but one may not have ended yet.
void Client::end_connection(const Deadline& deadline) {
  Lock lock(mutex_);
  const bool can_send = send_ended_.wait_until(lock, deadline.at(), [this] { return !is_sending_; });
  if (std::exchange(is_ended_, true)) return;
  is_sending_ = true;
  const bool can_read = !is_gone_ && reader_ == nullptr && waiters_.empty();
  lock.unlock();
  if (!can_send) {
    connection_->shut_down();
  } else if (can_read) {
    connection_->close(deadline);
  } else {
    connection_->abandon(deadline);
  }
}

}  // namespace pelmar::platform
