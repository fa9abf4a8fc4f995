// A client handle: one connection to a service, its transactions and its callbacks.
//
// The handle's thread runs every callback, and reads the connection while no synchronous sender waits. A synchronous
// sender that waits reads the connection itself, so that its response wakes no second thread; the thread's poll of the
// connection is disarmed meanwhile. The reader passes on all that it reads: responses to the senders that wait for
// them, indications and asynchronous responses to the thread's queue. After its own response it passes the reading to
// another waiting sender, or back to the thread, which arms its poll once no sender follows (reading_pause.h).
//
// While a sender reads, indications pile up behind a slow callback. Beyond a bound the oldest are dropped: we cannot
// stop reading, because the sender's response is behind them in the same stream, and the callback may wait for the
// sender.
//
// Under the phone's rules (rules.h) the thread alone reads, and takes in one message after the other.
//
// One mutex guards all state. It is not held while a read waits, while bytes are sent, or during a callback.
#pragma once

#include <array>
#include <condition_variable>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <variant>
#include <vector>

#include "handle.h"
#include "qmi_client.h"
#include "reading_pause.h"
#include "rules.h"
#include "transport.h"

namespace pelmar::platform {

class Client : public std::enable_shared_from_this<Client> {
 public:
  struct IndicationCallback {
    qmi_client_ind_cb function;
    void* data;
  };

  struct Request {
    uint16_t id;
    const void* structure;
    size_t structure_length;
    void* response;
    size_t response_length;
  };

  struct ResponseCallback {
    qmi_client_recv_msg_async_cb function;
    void* data;
  };

  Client(qmi_idl_service_object_type service, IndicationCallback indication, std::unique_ptr<Connection> connection,
         qmi_client_type handle);
  ~Client();

  void start();

  // These functions return transport or codec codes. A send without memory ends the process, as the handle's thread
  // does, because half a send cannot be undone.
  int32_t send_sync(const Request& request, const Deadline& deadline) noexcept;
  int32_t send_async(const Request& request, const ResponseCallback& callback, qmi_txn_handle* transaction) noexcept;
  int32_t register_error_callback(qmi_client_error_cb function, void* data);
  int32_t decode(qmi_idl_type_of_message_type type, uint16_t id, const void* bytes, size_t length, void* structure,
                 size_t structure_length) const;

  // Ends the handle. Senders that still wait return QMI_CLIENT_INVALID_CLNT, by the phone's rules QMI_INTERNAL_ERR.
  void release();

  // Releases the client id at the process's end, whatever the handle's threads are doing.
  void release_at_exit(const Deadline& deadline);

 private:
  using Lock = std::unique_lock<std::mutex>;

  enum class SendKind { kSync, kAsync };

  // A synchronous sender, on its stack.
  struct Waiter {
    Waiter(const Request& sent, const Deadline& until) : request(sent), deadline(until) {}

    const Request& request;
    const Deadline& deadline;
    uint16_t transaction = 0;
    size_t place = 0;  // the index in waiters_
    bool is_done = false;
    bool has_sent = false;  // it may become the reader
    int32_t result = QMI_NO_ERR;
    std::condition_variable changed;  // the sender is done, or is the reader now
  };

  // An asynchronous send.
  struct Transaction {
    uint16_t number;
    Request request;
    ResponseCallback callback;
    int32_t result;
    size_t reported_length;  // what the callback gets as the response's length
  };

  struct Indication {
    uint16_t id;
    std::vector<uint8_t> tlvs;
  };

  // A response that waits for its turn, by the phone's rules.
  struct Response {
    Message message;
    std::vector<uint8_t> tlvs;
  };

  using Event = std::variant<Indication, Transaction, Response>;

  // The senders that wait for a response, by transaction number. The index in the table is the number modulo the
  // table's size, so no search is needed; a number whose slot is taken is skipped. Asynchronous sends fill half of the
  // table at most, so that a free number is found soon, and synchronous senders, one for each thread, always find a
  // slot.
  using Slot = std::variant<std::monostate, Waiter*, std::list<Transaction>::iterator>;
  static constexpr size_t kSlots = 2048;
  static constexpr size_t kMostAsync = kSlots / 2;

  // The most bytes of indications that wait for a callback: some thousand of the largest.
  static constexpr size_t kMostWaitingBytes = size_t{64} << 20;
  static size_t waiting_bytes_of(const Event& event);

  // An array, because its address identifies the callback.
  static constexpr char kLossCallback[] = "a response callback after the loss of the service";

  // Whether the callback reports the loss of the service by the phone's rules.
  static bool is_lost(const Transaction& transaction) {
    return transaction.reported_length == 0 && transaction.result == QMI_SERVICE_ERR;
  }

  // client_send.cpp
  void check_loss_callback(const char* call) const;
  void check_own_callback(const char* call) const;
  int32_t released_error() const;
  int32_t check_lengths(const Request& request) const;
  void mark_lost(const Request& request) const;
  int32_t begin_send(Lock& lock, const Request& request, const Deadline& deadline, SendKind kind,
                     uint16_t& transaction);
  int32_t transmit(Lock& lock, const Request& request, uint16_t transaction, const Deadline& deadline);
  void end_send();
  int32_t wait_for_response(Lock& lock, Waiter& waiter);
  uint16_t new_transaction();
  Slot& slot_of(uint16_t transaction) { return slots_[transaction % kSlots]; }
  Transaction take(std::list<Transaction>::iterator transaction);

  // client_receive.cpp
  void dispatch_arrivals();
  void take_in_arrivals();
  void dispatch(const Message& message);
  void dispatch_kept();
  void dispatch_response(const Message& message);
  void send_due_probe();
  int32_t decode_response(const Request& request, const Message& message) const;
  void finish(Waiter& waiter, int32_t result);
  void end_stalled_stream();
  void abandon_connection();
  void service_gone();
  void lose();
  void take_reading(Waiter& waiter);
  void pass_reading();
  void poll_connection(bool armed);
  void push(Event event);
  void drop_oldest_indication();
  void wake_thread();

  // client.cpp
  void run();
  Event take_event();
  void handle(const Event& event, Lock& lock);
  void wait_for_work(Lock& lock);
  int limit_of_wait() const;
  void deliver(const Event& event) const;
  void call(const Transaction& transaction) const;
  void end_lost_connection(Lock& lock);
  void end_connection(const Deadline& deadline);

  const qmi_idl_service_object_type service_;
  const IndicationCallback indication_;
  const std::unique_ptr<Connection> connection_;
  const qmi_client_type handle_;
  const bool has_phone_rules_ = phone_rules();
  ProcessFd poll_;  // an epoll descriptor: the connection and the thread's wake-up
  const Deadline::Clock::time_point connected_ = Deadline::Clock::now();

  std::mutex mutex_;
  bool is_gone_ = false;              // the service went away
  bool is_stopping_ = false;          // the handle is released
  bool is_ended_ = false;             // a thread has ended the connection at the modem, or is doing so
  bool run_ends_connection_ = false;  // used by the thread: the handle was released inside its own callback

  bool is_sending_ = false;  // a thread owns the connection's sending side
  std::condition_variable send_ended_;

  Waiter* reader_ = nullptr;  // null: the handle's thread reads
  bool is_polled_ = false;    // the thread's poll of the connection is armed
  ReadingPause pause_;
  bool is_idle_ = false;  // the thread waits for something to do

  uint16_t last_transaction_ = 0;
  std::array<Slot, kSlots> slots_;
  std::vector<Waiter*> waiters_;         // synchronous senders that are not done, in any order
  std::list<Transaction> transactions_;  // without a response yet, in the order of sending
  size_t async_count_ = 0;               // of transactions_, and of the transactions in events_
  std::deque<Event> events_;             // for the thread, in the order of arrival
  size_t waiting_bytes_ = 0;             // of the messages in events_
  size_t dropped_ = 0;                   // dropped indications that are not logged yet
  size_t losses_due_ = 0;                // by the phone's rules: callbacks of lost transactions that have not returned

  qmi_client_error_cb error_function_ = nullptr;
  void* error_data_ = nullptr;
  bool is_error_due_ = false;  // the thread has to call the error callback

  CallerCallbacks caller_callbacks_;
  FrameworkThread thread_;
};

}  // namespace pelmar::platform
