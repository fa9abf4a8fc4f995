// Reads a client handle's connection and dispatches what arrives. REQUIRES for every function: the mutex is held.
#include <sys/epoll.h>

#include <algorithm>
#include <utility>

#include "client.h"
#include "notifier.h"
#include "observer.h"
#include "qmi_codec.h"
#include "qmi_idl_lib_internal.h"

namespace pelmar::platform {

// The longest time from the first part of a message to its last.
constexpr Deadline::Milliseconds kLongestMessage{100};

void Client::dispatch_arrivals() {
  Message message;
  for (;;) {
    switch (connection_->next(message)) {
      case Arrival::kNone:
        send_due_probe();
        return;
      case Arrival::kServiceGone:
        service_gone();
        return;
      case Arrival::kBrokenStream:
        abandon_connection();
        return;
      case Arrival::kMessage:
        dispatch(message);
    }
  }
}

// By the phone's rules: takes in what arrived during a callback, which was left in the connection.
void Client::take_in_arrivals() {
  constexpr int kMostReads = 64;  // a peer may send without end
  for (int reads = 0; reads < kMostReads && !is_stopping_ && !is_gone_; ++reads) {
    const ReadStatus status = connection_->read(Deadline::now());
    if (status == ReadStatus::kTimedOut) return;
    dispatch_arrivals();
    if (status == ReadStatus::kGone) service_gone();
  }
}

void Client::dispatch(const Message& message) {
  const bool is_response = message.kind == qmi::MessageKind::kResponse;
  observe({is_response ? Observation::Kind::kResponse : Observation::Kind::kIndication, service_->service_id,
           message.id, message.tlvs});
  if (is_response && has_phone_rules_ && !message.kept_since) {
    push(Response{message, {message.tlvs.begin(), message.tlvs.end()}});
  } else if (is_response) {
    dispatch_response(message);
  } else {
    push(Indication{message.id, {message.tlvs.begin(), message.tlvs.end()}});
  }
}

// The response of a sender whose time is up may be among the kept ones.
void Client::dispatch_kept() {
  if (is_gone_) return;
  Message message;
  while (connection_->take_kept(message)) dispatch(message);
}

// During a send, the probe goes out at the end of that send. If no transaction number is free, the next arrival tries
// again.
void Client::send_due_probe() {
  if (is_sending_ || !connection_->needs_probe()) return;
  if (const uint16_t transaction = new_transaction(); transaction != 0) connection_->send_probe(transaction);
}

// A response without a waiting sender came too late, and is dropped.
void Client::dispatch_response(const Message& message) {
  if (has_phone_rules_ && !message.length_agrees) return;
  const Slot& slot = slot_of(message.transaction);
  if (Waiter* const* const found = std::get_if<Waiter*>(&slot)) {
    Waiter& waiter = **found;
    if (waiter.transaction != message.transaction || waiter.request.id != message.id) return;
    const auto arrived = message.kept_since.value_or(Deadline::Clock::now());
    finish(waiter, waiter.deadline.has_passed_at(arrived) ? QMI_TIMEOUT_ERR : decode_response(waiter.request, message));
  } else if (const auto* const entry = std::get_if<std::list<Transaction>::iterator>(&slot)) {
    if ((*entry)->number != message.transaction || (*entry)->request.id != message.id) return;
    Transaction done = take(*entry);
    done.result = decode_response(done.request, message);
    // By the phone's rules this runs on the handle's thread and the message's turn has come, so the callback is next.
    if (has_phone_rules_ && !message.kept_since) {
      events_.push_front(done);
    } else {
      push(done);
    }
  }
}

Client::Transaction Client::take(std::list<Transaction>::iterator transaction) {
  const Transaction taken = *transaction;
  slot_of(taken.number) = std::monostate();
  transactions_.erase(transaction);
  if (transactions_.empty() && !has_phone_rules_) connection_->expect_response(false);
  return taken;
}

int32_t Client::decode_response(const Request& request, const Message& message) const {
  if (!message.length_agrees) return QMI_IDL_LIB_LENGTH_INCONSISTENCY;
  return decode(QMI_IDL_RESPONSE, request.id, message.tlvs.data(), message.tlvs.size(), request.response,
                request.response_length);
}

void Client::finish(Waiter& waiter, int32_t result) {
  slot_of(waiter.transaction) = std::monostate();
  waiters_[waiter.place] = waiters_.back();
  waiters_[waiter.place]->place = waiter.place;
  waiters_.pop_back();
  waiter.result = result;
  waiter.is_done = true;
  waiter.changed.notify_one();
}

// A message whose stated length is too great takes in all that follows it, so that a request times out while the
// message is incomplete. A message that is incomplete for a short time may only be slow; a later time-out checks it
// again.
void Client::end_stalled_stream() {
  if (has_phone_rules_ && !is_idle_) return;  // the thread, which alone reads, runs a callback
  const auto since = connection_->partial_since();
  if (is_gone_ || !since || Deadline::Clock::now() - *since < kLongestMessage) return;
  abandon_connection();
}

// The modem is there, but its bytes can no longer be parsed. The client id is released.
void Client::abandon_connection() {
  if (is_gone_) return;
  if (is_sending_) {
    connection_->shut_down();
  } else {
    connection_->stop_reading();
  }
  lose();
}

void Client::service_gone() {
  if (is_gone_) return;
  connection_->shut_down();  // also ends a waiting send
  lose();
}

// The handle's thread, or the release of the handle, then ends the connection at the modem.
void Client::lose() {
  is_gone_ = true;
  auto& backoff = ServiceBackoff::of(service_->service_id);
  const auto lifetime = Deadline::Clock::now() - connected_;
  if (is_stopping_) {
    backoff.released(lifetime);
  } else {
    backoff.lost(lifetime);
  }
  while (!waiters_.empty()) {
    mark_lost(waiters_.back()->request);
    finish(*waiters_.back(), QMI_SERVICE_ERR);
  }
  while (!transactions_.empty()) {
    Transaction lost = take(transactions_.begin());
    mark_lost(lost.request);
    lost.result = QMI_SERVICE_ERR;
    if (has_phone_rules_ && !is_stopping_) {
      lost.reported_length = 0;
      ++losses_due_;
    }
    push(lost);
  }
  is_error_due_ = error_function_ != nullptr;
  send_ended_.notify_all();  // the sends that wait do not depend on the one that is under way
  wake_thread();
}

void Client::take_reading(Waiter& waiter) {
  reader_ = &waiter;
  poll_connection(false);
}

void Client::pass_reading() {
  reader_ = nullptr;
  if (is_gone_ || is_stopping_) return;
  const auto next = std::find_if(waiters_.begin(), waiters_.end(), [](const Waiter* entry) { return entry->has_sent; });
  if (next == waiters_.end()) {
    const bool is_awaited = !transactions_.empty() || is_sending_;
    const auto action = is_awaited ? ReadingPause::Action::kArm : pause_.reader_ended();
    if (action == ReadingPause::Action::kArm) poll_connection(true);
    if (action == ReadingPause::Action::kWakeThread || !connection_->kept_until().is_none()) wake_thread();
    return;
  }
  reader_ = *next;
  reader_->changed.notify_one();
}

// Arms or disarms the thread's poll. It is one-shot, because a connection that hung up is reported whatever the poll
// waits for, and would keep the thread busy.
void Client::poll_connection(bool armed) {
  if (is_polled_ == armed) return;
  is_polled_ = armed;
  epoll_event event{};
  event.events = armed ? EPOLLIN | EPOLLONESHOT : EPOLLONESHOT;
  event.data.fd = connection_->descriptor();
  ::epoll_ctl(poll_.get(), EPOLL_CTL_MOD, connection_->descriptor(), &event);
}

void Client::push(Event event) {
  if (is_stopping_) return;
  const size_t bytes = waiting_bytes_of(event);
  const size_t most = std::holds_alternative<Indication>(event) ? kPhoneReceiveBuffer : kMostWaitingBytes;
  if (has_phone_rules_ && waiting_bytes_ + bytes > most) {
    ++dropped_;
    return;
  }
  waiting_bytes_ += bytes;
  events_.push_back(std::move(event));
  while (waiting_bytes_ > kMostWaitingBytes) drop_oldest_indication();
  wake_thread();
}

// Asynchronous responses are never dropped: each has a caller, and their number is bounded.
void Client::drop_oldest_indication() {
  const auto oldest = std::find_if(events_.begin(), events_.end(),
                                   [](const Event& event) { return std::holds_alternative<Indication>(event); });
  waiting_bytes_ -= waiting_bytes_of(*oldest);
  events_.erase(oldest);
  ++dropped_;
}

size_t Client::waiting_bytes_of(const Event& event) {
  if (const auto* const indication = std::get_if<Indication>(&event)) return sizeof(Event) + indication->tlvs.size();
  if (const auto* const response = std::get_if<Response>(&event)) return sizeof(Event) + response->tlvs.size();
  return 0;
}

void Client::wake_thread() {
  if (!is_idle_) return;
  is_idle_ = false;  // once is enough
  thread_.wake();
}

}  // namespace pelmar::platform
