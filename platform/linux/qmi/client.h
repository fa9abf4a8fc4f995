// A client handle: one connection to a service, its transactions and its callbacks.
//
// Who reads the connection: at rest the handle's own thread, which also runs every callback. A synchronous sender takes
// the reading over while it waits, so that its answer costs no wake-up of a second thread: the thread's poll of the
// connection is disarmed for that time. The reader hands out all that it reads: answers to the senders that wait for
// them, indications and asynchronous answers to the thread's queue. When its own answer is in it passes the reading
// on to another waiting sender, or back to the thread.
//
// While a sender reads, indications pile up behind a slow callback. They have a bound, beyond which the oldest are
// dropped: the sender's answer is behind them in the same stream, and the callback may be what waits for the sender.
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

#include "framework_thread.h"
#include "process_fd.h"
#include "qmi_client.h"
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

  // The answers of these are transport or codec codes.
  void start();
  // A send that has no memory to go on ends the process, as the handle's thread does: it cannot be taken back half-way.
  int32_t send_sync(const Request& request, const Deadline& deadline) noexcept;
  int32_t send_async(const Request& request, const ResponseCallback& callback, qmi_txn_handle* transaction) noexcept;
  int32_t register_error_callback(qmi_client_error_cb function, void* data);
  int32_t decode(qmi_idl_type_of_message_type type, uint16_t id, const void* bytes, size_t length, void* structure,
                 size_t structure_length) const;

  // Ends the handle. Senders that still wait end with QMI_CLIENT_INVALID_CLNT.
  void release();

  // Gives the client id back at the process's end, whatever the handle's threads are doing.
  void surrender(const Deadline& deadline);

 private:
  using Lock = std::unique_lock<std::mutex>;

  // A synchronous sender, on its stack.
  struct Waiter {
    Waiter(const Request& sent, const Deadline& until) : request(sent), deadline(until) {}

    const Request& request;
    const Deadline& deadline;
    uint16_t transaction = 0;
    size_t place = 0;  // among waiters_
    bool is_done = false;
    bool is_asleep = false;  // waits for `changed`
    int32_t answer = QMI_NO_ERR;
    std::condition_variable changed;  // done, or made the reader
  };

  // An asynchronous one.
  struct Transaction {
    uint16_t number;
    Request request;
    ResponseCallback callback;
    int32_t answer;
  };

  struct Indication {
    uint16_t id;
    std::vector<uint8_t> tlvs;
  };

  using Event = std::variant<Indication, Transaction>;

  // Whose response the modem still owes. A number's place in the table is its remainder, so it is found without a
  // search; a number whose place is taken is not given out. The asynchronous ones fill half of the table at most: the
  // next free number is soon found, and synchronous senders, one for each thread, find room always.
  using Slot = std::variant<std::monostate, Waiter*, std::list<Transaction>::iterator>;
  static constexpr size_t kSlots = 2048;
  static constexpr size_t kMostAsync = kSlots / 2;

  // Of indications that wait for a callback: some thousand of the largest.
  static constexpr size_t kMostWaitingBytes = size_t{64} << 20;
  static size_t waiting_bytes_of(const Event& event);

  // client_send.cpp
  int32_t check_response_length(const Request& request) const;
  static void mark_lost(const Request& request);
  int32_t begin_send(Lock& lock, const Deadline& deadline);
  int32_t transmit(Lock& lock, const Request& request, uint16_t transaction, const Deadline& deadline);
  void end_send();
  int32_t wait_for_answer(Lock& lock, Waiter& waiter);
  uint16_t new_transaction();
  Slot& slot_of(uint16_t transaction) { return slots_[transaction % kSlots]; }
  Transaction take(std::list<Transaction>::iterator transaction);

  // client_receive.cpp
  void dispatch_arrivals();
  void dispatch(const Message& message);
  void dispatch_kept();
  void dispatch_response(const Message& message);
  void ask_in_doubt();
  int32_t decode_response(const Request& request, const Message& message) const;
  void finish(Waiter& waiter, int32_t answer);
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
  void wait_for_work(Lock& lock);
  int limit_of_wait() const;
  void deliver(const Event& event) const;
  void end_lost_connection(Lock& lock);
  void end_connection(const Deadline& deadline);

  const qmi_idl_service_object_type service_;
  const IndicationCallback indication_;
  const std::unique_ptr<Connection> connection_;
  const qmi_client_type handle_;
  ProcessFd poll_;  // an epoll descriptor: the connection and the thread's wake-up
  const Deadline::Clock::time_point connected_ = Deadline::Clock::now();

  std::mutex mutex_;
  bool is_gone_ = false;      // the service went away
  bool is_stopping_ = false;  // the handle is released
  bool is_ended_ = false;     // the connection was ended towards the modem, or that is under way
  bool ends_alone_ = false;   // released in its own callback: run() ends the connection; the thread's own

  bool is_sending_ = false;  // somebody owns the connection's sending side
  std::condition_variable send_ended_;

  Waiter* reader_ = nullptr;  // null: the thread
  bool is_polled_ = false;    // the thread's poll of the connection is armed
  bool is_idle_ = false;      // the thread waits for something to do

  uint16_t last_transaction_ = 0;
  std::array<Slot, kSlots> slots_;
  std::vector<Waiter*> waiters_;         // not done yet, in any order
  std::list<Transaction> transactions_;  // under way, in the order of sending
  size_t async_count_ = 0;               // of them, and of those among the events
  std::deque<Event> events_;             // for the thread, in the order of arrival
  size_t waiting_bytes_ = 0;             // of the indications among them
  size_t dropped_ = 0;                   // indications, not yet logged

  qmi_client_error_cb error_function_ = nullptr;
  void* error_data_ = nullptr;
  bool is_error_due_ = false;  // the thread has to call the error callback

  CallerCallbacks caller_callbacks_;
  FrameworkThread thread_;
};

}  // namespace pelmar::platform
