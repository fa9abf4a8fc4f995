// Connections to the modem's services over QMUX: through a Unix stream socket, a proxy, or a device of the modem.
//
// Every connection has a link and a client id of its own. A real modem has few client ids, so each one is released.
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
#include "transport.h"

namespace pelmar::platform {

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

class QmuxConnection final : public Connection {
 public:
  // `record` contains the client id already, unless it could not be written.
  QmuxConnection(QmuxLink link, ClientIdRecord record, uint8_t service, uint8_t client, size_t message_capacity);
  ~QmuxConnection() override;

  int descriptor() const override { return link_.stream().descriptor(); }

  void expect_response(bool is_expected) override { link_.expect_response(is_expected); }

  uint8_t* message_buffer() override { return frame_.get() + qmi::kFrameHeaderLength; }
  size_t message_capacity() const override { return capacity_; }

  SendStatus send(size_t length) override;
  bool has_unsent() const override { return link_.has_unsent(); }
  SendStatus flush(const Deadline& deadline) override { return link_.flush(deadline); }

  ReadStatus read(const Deadline& deadline) override { return link_.read(deadline); }
  Arrival next(Message& message) override;
  std::optional<Deadline::Clock::time_point> partial_since() const override { return link_.partial_since(); }

  // See ClientIdCheck.
  Deadline kept_until() const override { return check_.deadline(); }
  bool take_kept(Message& message) override;
  bool needs_probe() const override { return check_.needs_probe() && !has_unsent(); }
  void send_probe(uint16_t transaction) override;

  // These release the client id.
  void close(const Deadline& deadline) override;
  void abandon(const Deadline& deadline) override;

  void stop_reading() override { link_.stream().stop_receiving(); }
  void shut_down() override { link_.stream().shut_down(); }

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

// Looks with requests to the modem's CTL service over a link without a client id.
class QmuxWatch final : public ServiceWatch {
 public:
  QmuxWatch(ModemAddress address, uint8_t service);

  Presence look() override;
  int descriptor() const override { return link_.is_open() ? link_.stream().descriptor() : -1; }

 private:
  bool look_over_link(Presence& presence, const Deadline& deadline);

  const ModemAddress address_;
  const uint8_t service_;
  uint32_t losses_seen_;
  QmuxLink link_;
};

int32_t open_qmux_connection(const ModemAddress& address, const ServiceName& service, size_t message_capacity,
                             const Deadline& deadline, std::unique_ptr<Connection>& connection);
std::unique_ptr<ServiceWatch> watch_qmux_service(const ModemAddress& address, uint32_t service);
std::vector<HeldClientId> list_client_ids(const ModemAddress& address, const Deadline& deadline);
void inspect_qmux(const ModemAddress& address, const Deadline& deadline, ModemReport& report);

}  // namespace pelmar::platform
