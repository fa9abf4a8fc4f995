// Connections to the modem's services, and the choice of the transport that makes them.
//
// The framework above handles messages, transactions and callbacks. A transport handles addresses, framing and the loss
// of a peer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "deadline.h"
#include "inspection.h"
#include "modem_address.h"
#include "qmux.h"

namespace pelmar::platform {

struct Message : qmi::Message {
  std::optional<Deadline::Clock::time_point> kept_since = std::nullopt;  // set if the message was kept back
};

enum class Arrival { kNone, kMessage, kServiceGone, kBrokenStream };

// A connection to one service. One thread at a time sends and one at a time reads; the two may be different.
class Connection {
 public:
  Connection() = default;
  virtual ~Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Readable when read() has something to read.
  virtual int descriptor() const = 0;

  // Whether the caller waits at descriptor() for a response. Otherwise what arrives may be reported there up to twice
  // ReadingPause::kLength late.
  virtual void expect_response(bool /*is_expected*/) {}

  // The buffer in which the caller writes the header and TLVs of the next message.
  virtual uint8_t* message_buffer() = 0;
  virtual size_t message_capacity() const = 0;

  // Sends the message in the buffer without waiting. After kBlocked, flush() must send the rest before the next send.
  virtual SendStatus send(size_t length) = 0;
  virtual bool has_unsent() const = 0;
  virtual SendStatus flush(const Deadline& deadline) = 0;

  // Waits for bytes until the deadline and reads them; tries to read at least once.
  virtual ReadStatus read(const Deadline& deadline) = 0;

  // The next of the messages that have been read; its bytes are valid until the next read. kBrokenStream: the stream
  // can no longer be parsed.
  virtual Arrival next(Message& message) = 0;

  // After next() returned kNone: the time at which the first part of an incomplete message arrived, if there is one.
  virtual std::optional<Deadline::Clock::time_point> partial_since() const { return std::nullopt; }

  // If the client id may be void, next() of a transport with client ids keeps a response back. At kept_until(), which
  // is none if no response is kept, next() must be called again. take_kept() ends the check and returns the kept
  // responses one by one.
  // REQUIRES: no two of next(), kept_until(), take_kept(), needs_probe() and send_probe() run at the same time.
  virtual Deadline kept_until() const { return Deadline::none(); }
  virtual bool take_kept(Message& /*message*/) { return false; }

  // needs_probe() returns whether a probe of the client id must be sent; send_probe() sends it without waiting.
  // REQUIRES for send_probe(): the caller owns the sending side, and the transaction is not in use.
  virtual bool needs_probe() const { return false; }
  virtual void send_probe(uint16_t /*transaction*/) {}

  // Ends the connection; waits for the modem's response until the deadline.
  // REQUIRES: the caller owns the sending and the reading side.
  virtual void close(const Deadline& deadline) = 0;

  // The same without waiting for the response; must also be called if the service went away. The deadline limits the
  // wait for other processes. Like close(), it may wait for files, so the caller holds no lock that others need.
  // REQUIRES: the caller owns the sending side.
  virtual void abandon(const Deadline& deadline) = 0;

  // The current read of another thread, and all later reads, end with kGone.
  virtual void stop_reading() = 0;

  // The current send or read of another thread, and all later ones, end with kGone.
  virtual void shut_down() = 0;
};

struct Presence {
  bool is_there;
  bool went_meanwhile;  // the service was absent at some time since the last look()
};

// If a modem or a name service takes longer to list its services, they count as absent.
inline constexpr Deadline::Milliseconds kLookTimeout{2000};

// Checks whether a service is there.
class ServiceWatch {
 public:
  ServiceWatch() = default;
  virtual ~ServiceWatch() = default;
  ServiceWatch(const ServiceWatch&) = delete;
  ServiceWatch& operator=(const ServiceWatch&) = delete;

  virtual Presence look() = 0;

  // Readable if another look() may return a change; -1 without a link.
  virtual int descriptor() const = 0;

  // Returns whether the descriptor becomes readable each time the service comes or goes, so that look() need not be
  // called before.
  virtual bool reports_all() const { return false; }
};

// A service of the modem.
struct ServiceName {
  uint32_t number;
  unsigned instance;  // QMI_CLIENT_INSTANCE_ANY: any. Only QRTR has instances.
};

// One way to reach a modem.
struct Transport {
  // Returns 0, QMI_TIMEOUT_ERR if the service is absent or the modem does not respond until the deadline, or another
  // transport code. Does not wait for a service.
  int32_t (*open)(const ModemAddress& address, const ServiceName& service, size_t message_capacity,
                  const Deadline& deadline, std::unique_ptr<Connection>& connection);

  std::unique_ptr<ServiceWatch> (*watch)(const ModemAddress& address, uint32_t service);

  // Fills in everything but the address, within the deadline.
  void (*inspect)(const ModemAddress& address, const Deadline& deadline, ModemReport& report);
};

const Transport& transport_of(const ModemAddress& address);

// The same for the modem of this process. A wrong address is reported to the system log once; then open_connection()
// returns QMI_CLIENT_PARAM_ERR, and the watch never finds a service.
int32_t open_connection(const ServiceName& service, size_t message_capacity, const Deadline& deadline,
                        std::unique_ptr<Connection>& connection);
std::unique_ptr<ServiceWatch> watch_service(uint32_t service);
ModemReport inspect_modem();
std::vector<HeldClientId> list_modem_client_ids();

}  // namespace pelmar::platform
