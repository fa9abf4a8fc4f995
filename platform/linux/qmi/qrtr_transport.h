// Connections to the modem's services over QRTR, the kernel's sockets between the processors of a phone.
//
// A socket has an address: a node, which is a processor, and a port. Services publish their address at the name service
// of their node. After a lookup, the name service lists the published services and then reports each change, in control
// packets (struct qrtr_ctrl_pkt of <linux/qrtr.h>, little-endian). A datagram between other ports is one QMI message
// without further header. There is no CTL service and no client id: a service identifies a client by the address of its
// socket, and receives a control packet when that socket closes.
//
// Each connection has one socket, for the messages and for the lookup. Datagrams of other senders than the service and
// the name service are dropped. The kernel drops every datagram that arrives while the socket is full, also the report
// that the service went away. So the socket has a buffer of 16 MiB, or less if the kernel's limit is lower, and after
// drops the connection looks the service up again.
//
// While a service on another node does not confirm what it has received, the kernel blocks the sends to it and all
// other calls on the sending socket, even calls that must not wait. No time-out limits that.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "deadline.h"
#include "handle.h"
#include "message_trace.h"
#include "modem_address.h"
#include "transport.h"

namespace pelmar::platform {

struct QrtrAddress {
  uint32_t node = 0;
  uint32_t port = 0;

  bool operator==(const QrtrAddress&) const = default;
};

// A control packet of the name service.
struct QrtrControl {
  enum class Kind {
    kOther,
    kArrival,     // the service at the address is there
    kDeparture,   // the service at the address went away
    kEndOfList,   // the services that were there at the time of the lookup have been listed
    kSocketGone,  // the socket at the address closed
    kNodeGone,    // the node of the address went away
  };

  Kind kind = Kind::kOther;
  QrtrAddress address = {};
  uint32_t service = 0;
  uint32_t instance = 0;
  uint8_t version = 0;

  // Returns whether the packet reports that the peer at the address went away. The service does not matter: a lookup
  // reports one, and a port has one.
  bool ends(const QrtrAddress& peer) const;

  bool operator==(const QrtrControl&) const = default;
};

QrtrControl read_qrtr_control(std::span<const uint8_t> packet);

// Selects the services of a lookup. An absent member matches any value.
struct QrtrQuery {
  uint32_t service;
  std::optional<uint32_t> instance = std::nullopt;
  std::optional<uint32_t> node = std::nullopt;
  std::optional<uint32_t> port = std::nullopt;

  // Returns whether an arrival or departure is of such a service, of any version.
  bool matches(const QrtrControl& packet) const;
};

class QrtrSocket {
 public:
  // The kernel sends no longer datagrams. Longer ones from other nodes are dropped.
  static constexpr size_t kMaxDatagram = UINT16_MAX;
  static constexpr size_t kRoom = kMaxDatagram + 1;  // shows whether a datagram is longer

  // Returns false with errno set if there is no socket. Reports a kernel without QRTR to the system log.
  bool open();
  void close() { descriptor_.reset(); }
  bool is_open() const { return static_cast<bool>(descriptor_); }
  int descriptor() const { return descriptor_.get(); }

  // The kernel assigns the port when the socket first sends.
  QrtrAddress own_address() const;

  // Sends without waiting. Never returns kTimedOut.
  SendStatus send(const QrtrAddress& to, const void* bytes, size_t length);

  // Receives without waiting. `bytes` is the room, and then the datagram, which is cut to the room. With kRoom, one
  // that is longer than kMaxDatagram becomes an empty one. kTimedOut: there is nothing to receive.
  ReadStatus receive(std::span<uint8_t>& bytes, QrtrAddress& from);

  // Receives a control packet of the name service without waiting; kOther stands for any other datagram.
  ReadStatus receive(QrtrControl& packet);

  bool is_name_service(const QrtrAddress& address) const { return address == name_service_; }

  // Looks up the services of that number, 0 for all, and calls `take` for each arrival and departure until the list
  // ends. The name service then reports changes to this socket. Returns false if the list does not end before the
  // deadline.
  // REQUIRES: the socket has not looked anything up before.
  bool look_up(uint32_t service, const Deadline& deadline, const std::function<void(const QrtrControl&)>& take);

  // Looks up the services of that number and returns the address of the first one that matches.
  enum class Found { kFound, kAbsent, kNoResponse };
  Found find(const QrtrQuery& query, const Deadline& deadline, QrtrAddress& address);

  // The number of datagrams that were dropped because the socket was full, the memory of those that wait, and the
  // memory at which the socket is full.
  struct Memory {
    uint32_t drops;
    uint32_t waiting_bytes;
    uint32_t capacity;
  };
  Memory memory() const;

  // Makes the receive buffer so small that the kernel drops nearly all later datagrams.
  void refuse_datagrams();

 private:
  ProcessFd descriptor_;
  QrtrAddress name_service_;
};

class QrtrConnection final : public Connection {
 public:
  QrtrConnection(QrtrSocket socket, const QrtrAddress& address, uint32_t service, size_t message_capacity);
  ~QrtrConnection() override;

  int descriptor() const override { return socket_.descriptor(); }

  uint8_t* message_buffer() override { return message_.get(); }
  size_t message_capacity() const override { return capacity_; }

  // A message that does not fit the service's socket until the deadline of flush() is dropped whole.
  SendStatus send(size_t length) override;
  bool has_unsent() const override { return unsent_ > 0; }
  SendStatus flush(const Deadline& deadline) override;

  ReadStatus read(const Deadline& deadline) override;
  Arrival next(Message& message) override;

  void close(const Deadline& deadline) override { abandon(deadline); }
  void abandon(const Deadline& deadline) override;
  void stop_reading() override;
  void shut_down() override;

 private:
  // The message as a frame of the trace.
  qmi::Frame frame_of(std::span<const uint8_t> message) const {
    return {static_cast<uint8_t>(service_), client_, message};
  }
  SendStatus try_send(size_t length);
  void wait(const Deadline& deadline) const;
  void check_for_drops();
  void report_drops();

  QrtrSocket socket_;
  const QrtrAddress address_;
  const uint32_t service_;
  const TraceLink trace_;
  const uint8_t client_;                   // of the trace
  ProcessFd wake_;                         // readable once reading has stopped
  std::atomic<bool> has_stopped_{false};   // no more reads
  std::atomic<bool> is_shut_down_{false};  // no more sends either

  const size_t capacity_;
  const std::unique_ptr<uint8_t[]> message_;
  size_t unsent_ = 0;  // the length of the message that waits for flush()

  // Of the reading side.
  const std::unique_ptr<uint8_t[]> received_;
  std::span<const uint8_t> datagram_;  // the received datagram, until next() takes it
  QrtrAddress from_;
  bool is_lost_ = false;
  const size_t unchecked_limit_;
  size_t unchecked_bytes_ = 0;  // the memory of the datagrams read since the last check for drops, or more
  uint32_t drops_ = 0;          // the kernel's count when it was last read
  uint32_t unreported_drops_ = 0;
  std::optional<uint32_t> drops_at_end_;  // the count before datagrams were refused
  bool is_check_due_ = false;
  Deadline next_count_ = Deadline::now();
  Deadline next_check_ = Deadline::now();
  Deadline next_report_ = Deadline::now();
};

class QrtrWatch final : public ServiceWatch {
 public:
  explicit QrtrWatch(const QrtrQuery& query) : query_(query) {}

  Presence look() override;
  int descriptor() const override { return socket_.descriptor(); }
  bool reports_all() const override { return socket_.is_open(); }

 private:
  bool take_news(const Deadline& deadline);

  const QrtrQuery query_;
  QrtrSocket socket_;  // open if it has a lookup whose list is complete
  bool is_there_ = false;
};

int32_t open_qrtr_connection(const ModemAddress& address, const ServiceName& service, size_t message_capacity,
                             const Deadline& deadline, std::unique_ptr<Connection>& connection);
std::unique_ptr<ServiceWatch> watch_qrtr_service(const ModemAddress& address, uint32_t service);
void inspect_qrtr(const ModemAddress& address, const Deadline& deadline, ModemReport& report);

}  // namespace pelmar::platform
