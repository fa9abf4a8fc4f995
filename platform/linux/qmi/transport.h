// The seam between the client framework and what carries its messages.
//
// A transport opens connections to services and watches whether a service is there. The framework above it knows
// messages, transactions and callbacks; the transport below knows addresses, framing and how a peer goes away. QMUX
// over a proxy's stream socket is the one that exists (qmux_transport.h); a datagram transport, where a connection is a
// socket and a message a datagram, implements the same three classes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "deadline.h"
#include "qmux.h"

namespace pelmar::platform {

enum class SendStatus { kSent, kBlocked, kTimedOut, kGone };
enum class ReadStatus { kRead, kTimedOut, kGone };
enum class Arrival { kNone, kMessage, kServiceGone, kBrokenStream };

struct Message : qmi::Message {
  std::optional<Deadline::Clock::time_point> kept_since = std::nullopt;  // where it was kept back
};

// A connection to one service. One thread at a time sends and one at a time reads; the two may be different.
class Connection {
 public:
  virtual ~Connection() = default;

  // Readable when read() has something to read.
  virtual int descriptor() const = 0;

  // Where the next message is written, header and TLVs, before it is sent.
  virtual uint8_t* message_buffer() = 0;
  virtual size_t message_capacity() const = 0;

  // Sends the message in the buffer without waiting. kBlocked: flush() must see to the rest before the next send.
  virtual SendStatus send(size_t length) = 0;
  virtual bool has_unsent() const = 0;
  virtual SendStatus flush(const Deadline& deadline) = 0;

  // Reads what arrives until the deadline, at least once.
  virtual ReadStatus read(const Deadline& deadline) = 0;

  // The next message among what has been read; its bytes are valid until the next read. A stream that cannot be parsed
  // any more is kBrokenStream.
  virtual Arrival next(Message& message) = 0;

  // After next() returned kNone: since when a message has been waiting for its rest; nothing where none is.
  virtual std::optional<Deadline::Clock::time_point> partial_since() const = 0;

  // A response that makes the connection itself doubtful is kept back by next() until the modem has replied to a
  // question about it, but not beyond this time, at which next() has to be called again; none where nothing is kept.
  // end_doubt() returns what is kept, one by one, before that. These and the question need neither side, but exclude
  // each other and next().
  virtual const Deadline& doubt_ends() const = 0;
  virtual bool end_doubt(Message& message) = 0;

  // Whether such a question is to be sent, and sending it without waiting, which needs the sending side. The
  // transaction is one that is not under way.
  virtual bool has_question() const = 0;
  virtual void ask(uint16_t transaction) = 0;

  // Ends the connection for the modem too, and waits for its response until the deadline. Needs the sending and the
  // reading side.
  virtual void close(const Deadline& deadline) = 0;

  // The same without waiting for the response; it needs the sending side only; also to be called where the service went
  // away. The deadline is for other processes. Like close(), it may wait for files: the caller holds no lock that
  // others need.
  virtual void abandon(const Deadline& deadline) = 0;

  // Makes a read that is under way on another thread, and all later ones, end with kGone.
  virtual void stop_reading() = 0;

  // Makes a send or read that is under way on another thread, and all later ones, end with kGone.
  virtual void shut_down() = 0;
};

struct Presence {
  bool is_there;
  bool went_meanwhile;  // it was away at some time since the last look
};

class ServiceWatch {
 public:
  virtual ~ServiceWatch() = default;

  virtual Presence look() = 0;

  // Readable when another look may find something new; -1 where only time can tell.
  virtual int descriptor() const = 0;
};

class Transport {
 public:
  virtual ~Transport() = default;

  // Returns 0, QMI_TIMEOUT_ERR where the service is absent or the modem does not respond until the deadline, or another
  // transport code. Does not wait for a service.
  virtual int32_t open(uint32_t service, size_t message_capacity, const Deadline& deadline,
                       std::unique_ptr<Connection>& connection) = 0;

  virtual std::unique_ptr<ServiceWatch> watch(uint32_t service) = 0;
};

// The transport of this machine.
Transport& default_transport();

}  // namespace pelmar::platform
