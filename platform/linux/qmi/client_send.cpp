// Sends of a client handle, and the wait of a synchronous sender.
#include <cstring>

#include "client.h"
#include "common_v01.h"
#include "observer.h"
#include "qmi_codec.h"
#include "qmi_idl_lib_internal.h"

namespace pelmar::platform {

// The interface gives an asynchronous send no time-out. A connection that takes no bytes for this long is busy.
constexpr Deadline::Milliseconds kAsyncSendTimeout{5000};

int32_t Client::send_sync(const Request& request, const Deadline& deadline) noexcept {
  constexpr const char* kCall = "qmi_client_send_msg_sync";
  check_loss_callback(kCall);
  Waiter waiter(request, deadline);
  Lock lock(mutex_, std::defer_lock);
  int32_t error = begin_send(lock, request, deadline, SendKind::kSync, waiter.transaction);
  if (error != QMI_NO_ERR) return error;
  if (deadline.is_none()) check_own_callback(kCall);
  slot_of(waiter.transaction) = &waiter;
  waiter.place = waiters_.size();
  waiters_.push_back(&waiter);
  // While bytes of an earlier send wait, the thread reads, unless it runs a callback: the modem may take no more bytes
  // until we read.
  if (reader_ == nullptr && !has_phone_rules_ && !connection_->has_unsent()) take_reading(waiter);
  error = transmit(lock, request, waiter.transaction, deadline);
  if (error != QMI_NO_ERR && !waiter.is_done) finish(waiter, error);
  return wait_for_response(lock, waiter);
}

int32_t Client::send_async(const Request& request, const ResponseCallback& callback,
                           qmi_txn_handle* transaction) noexcept {
  const Deadline deadline = Deadline::after(kAsyncSendTimeout);
  check_loss_callback("qmi_client_send_msg_async");
  Lock lock(mutex_, std::defer_lock);
  uint16_t number = 0;
  int32_t error = begin_send(lock, request, deadline, SendKind::kAsync, number);
  if (error != QMI_NO_ERR) return error;
  ++async_count_;
  const auto own =
      transactions_.insert(transactions_.end(), {number, request, callback, QMI_NO_ERR, request.response_length});
  slot_of(number) = own;
  if (reader_ == nullptr) poll_connection(true);  // the thread reads the response
  if (transactions_.size() == 1) connection_->expect_response(true);
  if (transaction != nullptr) *transaction = reinterpret_cast<qmi_txn_handle>(uintptr_t{number});
  error = transmit(lock, request, number, deadline);
  if (error == QMI_NO_ERR) return QMI_NO_ERR;

  // If the slot is free, the exchange has ended, and its callback runs. The slot cannot have a new owner yet, because
  // no other send can begin before this one has ended.
  if (std::holds_alternative<std::monostate>(slot_of(number))) return QMI_NO_ERR;
  take(own);
  --async_count_;
  return error == QMI_TIMEOUT_ERR ? QMI_XPORT_BUSY_ERR : error;
}

// Fills the response's header with a failure: a caller that reads the header alone must not take a lost exchange for a
// success.
void Client::mark_lost(const Request& request) const {
  if (has_phone_rules_) return;
  const qmi_response_type_v01 lost = {QMI_RESULT_FAILURE_V01, QMI_ERR_INTERNAL_V01};
  if (request.response_length >= sizeof(lost)) std::memcpy(request.response, &lost, sizeof(lost));
}

// By the phone's rules, no send returns in a callback that reports the loss.
void Client::check_loss_callback(const char* call) const {
  if (!has_phone_rules_ || RunningCallback::of(this) != kLossCallback) return;
  end_blocked_process(service_->service_id, call, kLossCallback, "Send after the callback has returned.");
}

// By the phone's rules, no response comes in any other callback on the handle's thread. Where the service is gone, the
// send has returned before.
void Client::check_own_callback(const char* call) const {
  if (!has_phone_rules_ || !thread_.is_current()) return;
  end_blocked_process(service_->service_id, call, RunningCallback::of(this),
                      "Send on another thread, or use qmi_client_send_msg_async.");
}

int32_t Client::released_error() const {
  return has_phone_rules_ ? QMI_INTERNAL_ERR : QMI_CLIENT_INVALID_CLNT;
}

int32_t Client::check_lengths(const Request& request) const {
  qmi::MessageSize size;
  if (has_phone_rules_ && request.structure_length != 0) {
    const int32_t error = qmi::message_size(service_, QMI_IDL_REQUEST, request.id, &size);
    if (error != QMI_IDL_LIB_NO_ERR) return error;
    if (request.structure_length != size.structure_length) return QMI_CLIENT_PARAM_ERR;
  }
  const int32_t error = qmi::message_size(service_, QMI_IDL_RESPONSE, request.id, &size);
  if (error != QMI_IDL_LIB_NO_ERR) return error;
  if (request.response == nullptr) return QMI_CLIENT_PARAM_ERR;
  return request.response_length < size.structure_length ? QMI_IDL_LIB_BUFFER_TOO_SMALL : QMI_IDL_LIB_NO_ERR;
}

// Checks the request, takes the lock, waits for the sending side and gives the request a transaction number. On success
// the caller owns the sending side until end_send().
int32_t Client::begin_send(Lock& lock, const Request& request, const Deadline& deadline, SendKind kind,
                           uint16_t& transaction) {
  if (const int32_t error = check_lengths(request); error != QMI_NO_ERR) return error;
  lock.lock();
  const auto is_free = [this] { return is_stopping_ || (losses_due_ == 0 && (!is_sending_ || is_gone_)); };
  if (deadline.is_none()) {
    send_ended_.wait(lock, is_free);
  } else if (!is_free() && !send_ended_.wait_until(lock, deadline.at(), is_free)) {
    return kind == SendKind::kAsync ? QMI_XPORT_BUSY_ERR : QMI_TIMEOUT_ERR;
  }
  if (is_stopping_) return released_error();
  if (is_gone_) {
    mark_lost(request);
    return QMI_SERVICE_ERR;
  }
  is_sending_ = true;
  transaction = kind == SendKind::kAsync && async_count_ >= kMostAsync ? 0 : new_transaction();
  if (transaction != 0) return QMI_NO_ERR;
  end_send();
  return QMI_XPORT_BUSY_ERR;
}

void Client::end_send() {
  is_sending_ = false;
  if (!is_gone_) send_due_probe();
  send_ended_.notify_all();
}

// Encodes the request and sends it. Ends the send in any case.
int32_t Client::transmit(Lock& lock, const Request& request, uint16_t transaction, const Deadline& deadline) {
  lock.unlock();
  SendStatus status = connection_->has_unsent() ? connection_->flush(deadline) : SendStatus::kSent;
  int32_t error = QMI_NO_ERR;
  if (status == SendStatus::kSent) {
    uint8_t* const buffer = connection_->message_buffer();
    size_t length = 0;
    if (request.structure_length > 0 || !has_phone_rules_) {
      error = qmi::encode(service_, QMI_IDL_REQUEST, request.id, request.structure, request.structure_length,
                          buffer + qmi::kMessageHeaderLength,
                          connection_->message_capacity() - qmi::kMessageHeaderLength, &length);
    }
    if (error == QMI_NO_ERR) {
      qmi::store_message_header(buffer, qmi::MessageKind::kRequest, transaction, request.id, length);
      observe({Observation::Kind::kRequest,
               service_->service_id,
               request.id,
               {buffer + qmi::kMessageHeaderLength, length}});
      status = connection_->send(qmi::kMessageHeaderLength + length);
    }
  }
  lock.lock();
  if (status == SendStatus::kBlocked) {
    // The modem may take no more bytes until we read, so we pass the reading on.
    if (reader_ != nullptr && reader_->transaction == transaction) pass_reading();
    lock.unlock();
    status = connection_->flush(deadline);
    lock.lock();
  }
  if (status == SendStatus::kGone) service_gone();
  end_send();
  if (status == SendStatus::kGone) return QMI_SERVICE_ERR;
  return status == SendStatus::kTimedOut ? QMI_TIMEOUT_ERR : error;
}

int32_t Client::wait_for_response(Lock& lock, Waiter& waiter) {
  const Deadline& deadline = waiter.deadline;
  waiter.has_sent = true;
  while (!waiter.is_done) {
    if (reader_ == nullptr && !has_phone_rules_) take_reading(waiter);
    if (reader_ == &waiter) {
      const Deadline until = earlier(deadline, connection_->kept_until());
      lock.unlock();
      const ReadStatus status = connection_->read(until);
      lock.lock();
      dispatch_arrivals();
      if (status == ReadStatus::kGone) service_gone();
    } else {
      if (deadline.is_none()) {
        waiter.changed.wait(lock);
      } else {
        waiter.changed.wait_until(lock, deadline.at());
      }
    }
    if (waiter.is_done || !deadline.has_passed()) continue;
    dispatch_kept();
    if (!waiter.is_done) {
      finish(waiter, QMI_TIMEOUT_ERR);
      end_stalled_stream();
    }
  }
  if (reader_ == &waiter) pass_reading();
  return waiter.result;
}

// Returns 0 if all slots are taken.
uint16_t Client::new_transaction() {
  if (waiters_.size() + transactions_.size() >= kSlots) return 0;
  do {
    ++last_transaction_;
  } while (last_transaction_ == 0 || !std::holds_alternative<std::monostate>(slot_of(last_transaction_)));
  return last_transaction_;
}

}  // namespace pelmar::platform
