// Connections to the modem's services over a QMUX proxy: a Unix stream socket named by PELMAR_QMI_SOCKET (a path, or
// @NAME in the abstract namespace; @qmi-proxy if it is unset). The proxy opens the device PELMAR_QMI_DEVICE, else
// /dev/cdc-wdm0.
//
// The framework above handles messages, transactions and callbacks. Addresses, framing and the ways in which a peer
// goes away are handled here.
//
// Every connection has a socket and a client id of its own. A real modem has few client ids, so each one is released.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "client_id_record.h"
#include "deadline.h"
#include "qmux.h"
#include "qmux_link.h"

namespace pelmar::platform {

struct Message : qmi::Message {
  std::optional<Deadline::Clock::time_point> kept_since = std::nullopt;  // set if the message was kept back
};

// Distinguishes a client id that the modem no longer has from a message that is refused for a reason of its own.
//
// A modem refuses every message on a void id with one error, and a proxy may not report that ids became void. But a
// service may use the same error for something that a message names. So a response with that error is kept back while a
// probe goes out on the same id: a request that no service refuses with that error. If the probe is refused with it,
// the id is void. Otherwise, also if no response comes in time, the kept responses are delivered unchanged.
//
// One thread at a time uses it.
class ClientIdCheck {
 public:
  enum class Verdict { kDeliver, kKept, kVoid };

  Verdict check(const Message& message);

  // The next kept message that is to be delivered now, valid until the next call.
  bool take_kept(Message& message);

  // The kept messages are to be delivered, whatever the modem responds.
  void settle();

  // Whether a probe is to be sent. It has kProbeLength bytes.
  bool needs_probe() const { return state_ == State::kProbeDue; }
  static constexpr size_t kProbeLength = qmi::kMessageHeaderLength;
  void store_probe(uint8_t* at, uint16_t transaction);

  // The time at which the kept messages must be delivered; none if no message is kept.
  const Deadline& deadline() const { return deadline_; }

 private:
  enum class State { kSettled, kProbeDue, kProbeSent };

  struct Kept {
    Message message;
    std::vector<uint8_t> tlvs;
  };

  State state_ = State::kSettled;
  std::optional<uint16_t> probe_;  // the transaction of the last probe
  Deadline deadline_ = Deadline::none();
  std::deque<Kept> kept_;
  std::vector<uint8_t> taken_;  // the bytes of the message that was taken last
};

enum class Arrival { kNone, kMessage, kServiceGone, kBrokenStream };

// A connection to one service. One thread at a time sends and one at a time reads; the two may be different.
class Connection {
 public:
  // Returns 0, QMI_TIMEOUT_ERR if the service is absent or the modem does not respond until the deadline, or another
  // transport code. Does not wait for a service.
  static int32_t open(uint32_t service, size_t message_capacity, const Deadline& deadline,
                      std::unique_ptr<Connection>& connection);

  // `record` contains the client id already, unless it could not be written.
  Connection(QmuxLink link, ClientIdRecord record, uint8_t service, uint8_t client, size_t message_capacity);
  ~Connection();

  // Readable when read() has something to read.
  int descriptor() const { return link_.stream().descriptor(); }

  // Where the caller writes the next message, header and TLVs, before it is sent.
  uint8_t* message_buffer() { return frame_.get() + qmi::kFrameHeaderLength; }
  size_t message_capacity() const { return capacity_; }

  // Sends the message in the buffer without waiting. After kBlocked, flush() must send the rest before the next send.
  SendStatus send(size_t length);
  bool has_unsent() const { return link_.stream().has_unsent(); }
  SendStatus flush(const Deadline& deadline) { return link_.stream().flush(deadline); }

  // Reads what arrives until the deadline; tries to read at least once.
  ReadStatus read(const Deadline& deadline) { return link_.read(deadline); }

  // The next of the messages that have been read; its bytes are valid until the next read. kBrokenStream: the stream
  // can no longer be parsed.
  Arrival next(Message& message);

  // After next() returned kNone: the time at which the first part of an incomplete message arrived, if there is one.
  std::optional<Deadline::Clock::time_point> partial_since() const { return link_.partial_since(); }

  // next() keeps a response back if the client id may be void (see ClientIdCheck). At kept_until(), next() must be
  // called again; none if no response is kept. take_kept() ends the check and returns the kept responses one by one.
  // REQUIRES: no two of next(), kept_until(), take_kept(), needs_probe() and send_probe() run at the same time.
  const Deadline& kept_until() const { return check_.deadline(); }
  bool take_kept(Message& message);

  // Whether a probe of the client id is to be sent, and sending it without waiting.
  // REQUIRES for send_probe(): the caller owns the sending side, and the transaction is not in use.
  bool needs_probe() const { return check_.needs_probe() && !has_unsent(); }
  void send_probe(uint16_t transaction);

  // Ends the connection and releases the client id; waits for the modem's response until the deadline.
  // REQUIRES: the caller owns the sending and the reading side.
  void close(const Deadline& deadline);

  // The same without waiting for the response; also to be called if the service went away. The deadline limits the wait
  // for other processes. Like close(), it may wait for files, so the caller holds no lock that others need.
  // REQUIRES: the caller owns the sending side.
  void abandon(const Deadline& deadline);

  // The current read of another thread, and all later reads, end with kGone.
  void stop_reading() { link_.stream().stop_receiving(); }

  // The current send or read of another thread, and all later ones, end with kGone.
  void shut_down() { link_.stream().shut_down(); }

 private:
  enum class IdState { kHeld, kRevoked, kVoid, kGone };

  bool voids_client_id(const ControlIndication& indication);
  bool is_for_this_client(const qmi::Frame& frame, qmi::MessageKind kind) const;
  void lose_id(IdState how);
  bool take_id(const Deadline& deadline);

  QmuxLink link_;
  ClientIdRecord record_;
  const ClientIdRecord::Id id_;
  std::atomic<IdState> id_state_{IdState::kHeld};  // the reader and the thread that ends the connection may differ
  ClientIdCheck check_;
  const size_t capacity_;
  const std::unique_ptr<uint8_t[]> frame_;
};

struct Presence {
  bool is_there;
  bool went_meanwhile;  // the service was away at some time since the last look
};

// Looks whether a service is there, with requests to the modem's CTL service over a link without a client id.
class ServiceWatch {
 public:
  explicit ServiceWatch(uint8_t service);

  Presence look();

  // Readable if another look may find something new; -1 without a link.
  int descriptor() const { return link_.is_open() ? link_.stream().descriptor() : -1; }

 private:
  bool look_over_link(Presence& presence, const Deadline& deadline);

  const uint8_t service_;
  uint32_t losses_seen_;
  QmuxLink link_;
};

}  // namespace pelmar::platform
