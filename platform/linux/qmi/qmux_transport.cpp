#include "qmux_transport.h"

#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "client_id_check.h"
#include "client_id_record.h"
#include "common_v01.h"
#include "observer.h"
#include "qmi_client.h"
#include "qmux_link.h"

namespace pelmar::platform {
namespace {

// A modem that takes longer for a look at its services counts as absent.
constexpr Deadline::Milliseconds kLookTimeout{2000};

// What giving back the ids of others may hold up an open.
constexpr Deadline::Milliseconds kReleaseTimeout{500};

constexpr size_t kMaxMessageLength = qmi::kMaxFrameLength - qmi::kFrameHeaderLength;

bool offers(const std::vector<uint8_t>& services, uint8_t service) {
  return std::find(services.begin(), services.end(), service) != services.end();
}

ClientIdRecord record_of_modem() {
  return ClientIdRecord(modem_socket(), modem_device());
}

// How often a client id of the service was lost in this process, where a notifier's own link may not see it.
std::atomic<uint32_t>& revocations(uint8_t service) {
  static std::atomic<uint32_t> counts[UINT8_MAX + 1];
  return counts[service];
}

class QmuxConnection final : public Connection {
 public:
  // The record has the id, where it can.
  QmuxConnection(QmuxLink link, ClientIdRecord record, uint8_t service, uint8_t client, size_t message_capacity)
      : link_(std::move(link)),
        record_(std::move(record)),
        service_(service),
        client_(client),
        capacity_(std::min(message_capacity, kMaxMessageLength)),
        frame_(new uint8_t[qmi::kFrameHeaderLength + capacity_]) {}

  ~QmuxConnection() override { abandon(Deadline::after(kReleaseTimeout)); }

  int descriptor() const override { return link_.stream().descriptor(); }
  uint8_t* message_buffer() override { return frame_.get() + qmi::kFrameHeaderLength; }
  size_t message_capacity() const override { return capacity_; }

  SendStatus send(size_t length) override {
    qmi::store_frame_header(frame_.get(), qmi::Direction::kToModem, service_, client_, length);
    return link_.stream().send(frame_.get(), qmi::kFrameHeaderLength + length);
  }
  bool has_unsent() const override { return link_.stream().has_unsent(); }
  SendStatus flush(const Deadline& deadline) override { return link_.stream().flush(deadline); }
  ReadStatus read(const Deadline& deadline) override { return link_.read(deadline); }

  Arrival next(Message& message) override {
    qmi::Frame frame;
    while (!check_.take_kept(message)) {
      if (!link_.next(frame)) return link_.is_broken() ? Arrival::kBrokenStream : Arrival::kNone;
      const auto arrived = qmi::read_message(frame);
      if (!arrived) continue;
      if (frame.service == qmi::kControlService) {
        if (voids_client_id(read_control_indication(*arrived))) return Arrival::kServiceGone;
      } else if (is_for_us(frame, arrived->kind)) {
        message = {*arrived};
        const auto verdict = check_.look(message);
        if (verdict == ClientIdCheck::Verdict::kDeliver) break;
        if (verdict == ClientIdCheck::Verdict::kVoid) {
          lose_id(IdState::kVoid);
          revocations(service_).fetch_add(1, std::memory_order_relaxed);
          return Arrival::kServiceGone;
        }
      }
    }
    return Arrival::kMessage;
  }

  const Deadline& doubt_ends() const override { return check_.deadline(); }
  bool end_doubt(Message& message) override {
    check_.settle();
    return check_.take_kept(message);
  }
  bool has_question() const override { return check_.has_question() && !has_unsent(); }
  void ask(uint16_t transaction) override {
    uint8_t question[qmi::kFrameHeaderLength + ClientIdCheck::kQuestionLength];
    qmi::store_frame_header(question, qmi::Direction::kToModem, service_, client_, ClientIdCheck::kQuestionLength);
    check_.store_question(question + qmi::kFrameHeaderLength, transaction);
    link_.stream().send(question, sizeof question);
  }

  std::optional<Deadline::Clock::time_point> partial_since() const override { return link_.partial_since(); }

  void close(const Deadline& deadline) override {
    if (take_id(deadline) && link_.release_client_id(service_, client_, deadline) == QmuxLink::Answer::kNotSent) {
      record_.restore({id()}, deadline);
    }
    shut_down();
  }

  void abandon(const Deadline& deadline) override {
    if (take_id(deadline) && link_.send_release_client_id(service_, client_) != SendStatus::kSent) {
      record_.restore({id()}, deadline);
    }
    shut_down();
  }

  void stop_reading() override { link_.stream().stop_receiving(); }

  void shut_down() override { link_.stream().shut_down(); }

 private:
  enum class IdState { kHeld, kRevoked, kVoid, kGone };

  bool voids_client_id(const ControlIndication& indication) {
    if (indication.event == ControlIndication::kRestarted) {
      lose_id(IdState::kVoid);
      return true;
    }
    const bool is_revoked = indication.event == ControlIndication::kRevoked && indication.service == service_ &&
                            indication.client == client_;
    if (is_revoked) {
      lose_id(IdState::kRevoked);
      revocations(service_).fetch_add(1, std::memory_order_relaxed);
    }
    return is_revoked;
  }
  bool is_for_us(const qmi::Frame& frame, qmi::MessageKind kind) const {
    if (frame.service != service_) return false;
    return kind == qmi::MessageKind::kIndication ? frame.client == client_ || frame.client == qmi::kAllClients
                                                 : frame.client == client_ && kind == qmi::MessageKind::kResponse;
  }

  ClientIdRecord::Id id() const { return {service_, client_}; }

  // The record is updated later, at the connection's end: the reader must not wait for files.
  void lose_id(IdState how) {
    IdState held = IdState::kHeld;
    id_state_.compare_exchange_strong(held, how);
  }

  // True for one caller at most, where the id is to be given back; the record does not have it any more.
  bool take_id(const Deadline& deadline) {
    switch (id_state_.exchange(IdState::kGone)) {
      case IdState::kHeld:
        return record_.remove(deadline);
      case IdState::kRevoked:
        record_.remove(deadline);
        return false;
      case IdState::kVoid:
        record_.void_own(deadline);
        return false;
      case IdState::kGone:
        break;
    }
    return false;
  }

  QmuxLink link_;
  ClientIdRecord record_;
  const uint8_t service_;
  const uint8_t client_;
  std::atomic<IdState> id_state_{IdState::kHeld};  // the reader and who ends the connection may be two threads
  ClientIdCheck check_;
  const size_t capacity_;
  const std::unique_ptr<uint8_t[]> frame_;
};

// Asks the modem's CTL service again and again over a connection of its own, which holds no client id.
class QmuxWatch final : public ServiceWatch {
 public:
  explicit QmuxWatch(uint8_t service) : service_(service), revocations_seen_(revocations(service)) {}

  Presence look() override {
    const Deadline deadline = Deadline::after(kLookTimeout);
    const uint32_t revocations_now = revocations(service_).load(std::memory_order_relaxed);
    Presence presence = {false, std::exchange(revocations_seen_, revocations_now) != revocations_now};
    if (link_.is_open()) {
      if (ask(presence, deadline)) return presence;
      presence.went_meanwhile = true;
    }
    if (link_.open(deadline)) ask(presence, deadline);
    return presence;
  }

  int descriptor() const override { return link_.is_open() ? link_.stream().descriptor() : -1; }

 private:
  bool ask(Presence& presence, const Deadline& deadline) {
    std::vector<uint8_t> services;
    if (link_.get_services(services, deadline) != QmuxLink::Answer::kSuccess) {
      link_.close();
      return false;
    }
    presence.is_there = offers(services, service_);
    presence.went_meanwhile |= link_.take_revocation(service_);
    if (link_.take_restart()) {
      presence.went_meanwhile = true;
      // They are void. Which of the live owners' ids are older than the restart is unknown here.
      record_of_modem().take_abandoned(deadline);
    }
    return true;
  }

  const uint8_t service_;
  uint32_t revocations_seen_;
  QmuxLink link_;
};

// Ids that killed processes have left, and that the record does not have any more.
void give_back(const std::vector<ClientIdRecord::Id>& ids, QmuxLink& link, const ClientIdRecord& record,
               const Deadline& end) {
  const Deadline deadline = earlier(end, Deadline::after(kReleaseTimeout));
  auto id = ids.begin();
  auto answer = QmuxLink::Answer::kSuccess;
  while (id != ids.end() && answer != QmuxLink::Answer::kNoAnswer && answer != QmuxLink::Answer::kNotSent &&
         !deadline.has_passed()) {
    answer = link.release_client_id(id->service, id->client, deadline);
    // What was sent in part goes out before the link's next message.
    if (answer != QmuxLink::Answer::kNotSent || link.stream().has_unsent()) ++id;
  }
  record.restore({id, ids.end()}, end);
}

}  // namespace

int32_t QmuxTransport::open(uint32_t service, size_t message_capacity, const Deadline& deadline,
                            std::unique_ptr<Connection>& connection) {
  if (service == qmi::kControlService || service > UINT8_MAX) return QMI_CLIENT_PARAM_ERR;
  const auto number = static_cast<uint8_t>(service);
  QmuxLink link;
  std::vector<uint8_t> services;
  if (!link.open(deadline) || link.get_services(services, deadline) != QmuxLink::Answer::kSuccess ||
      !offers(services, number)) {
    return QMI_TIMEOUT_ERR;
  }
  ClientIdRecord record = record_of_modem();
  uint8_t client = 0;
  QmuxLink::Answer answer = link.allocate_client_id(number, client, deadline);
  if (answer == QmuxLink::Answer::kClientIdsExhausted) {
    give_back(record.take_abandoned(deadline), link, record, deadline);
    answer = link.allocate_client_id(number, client, deadline);
  }
  switch (answer) {
    case QmuxLink::Answer::kSuccess:
      give_back(record.add({number, client}, deadline), link, record, deadline);
      if (link.take_restart()) {
        record.void_own(deadline);
        return QMI_TIMEOUT_ERR;
      }
      if (link.is_revoked(number, client)) {
        record.remove(deadline);
        return QMI_TIMEOUT_ERR;
      }
      break;
    case QmuxLink::Answer::kNoAnswer:
    case QmuxLink::Answer::kNotSent:
      return QMI_TIMEOUT_ERR;
    case QmuxLink::Answer::kClientIdsExhausted:
      syslog(LOG_ERR, "QMI service 0x%02x: no client id is left (QMI error 5, client ids exhausted): %s",
             unsigned{number}, "end programs that use the modem, or restart it");
      observe({.kind = Observation::Kind::kEnd, .error = QMI_ERR_CLIENT_IDS_EXHAUSTED_V01});
      return QMI_CLIENT_ALLOC_FAILURE;
    case QmuxLink::Answer::kFailure:
      return QMI_CLIENT_ALLOC_FAILURE;
  }
  connection = std::make_unique<QmuxConnection>(std::move(link), std::move(record), number, client, message_capacity);
  return QMI_NO_ERR;
}

std::unique_ptr<ServiceWatch> QmuxTransport::watch(uint32_t service) {
  return std::make_unique<QmuxWatch>(static_cast<uint8_t>(service));
}

Transport& default_transport() {
  static auto* const transport = new QmuxTransport;  // never destroyed: threads may use it until the process is gone
  return *transport;
}

}  // namespace pelmar::platform
