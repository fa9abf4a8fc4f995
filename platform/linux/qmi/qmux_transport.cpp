#include "qmux_transport.h"

#include <syslog.h>

#include <algorithm>
#include <utility>

#include "common_v01.h"
#include "observer.h"
#include "qmi_client.h"

namespace pelmar::platform {
namespace {

using Outcome = QmuxLink::Outcome;

// The longest delay of an open by the release of client ids that dead processes left.
constexpr Deadline::Milliseconds kReleaseTimeout{500};

constexpr size_t kMaxMessageLength = qmi::kMaxFrameLength - qmi::kFrameHeaderLength;

// The probe's message. Every service lists its messages, or refuses this one as unknown.
constexpr uint16_t kGetSupportedMessages = 0x001E;

// The longest time for which a response is kept back.
constexpr Deadline::Milliseconds kProbeTimeout{500};

// A modem may send responses without end, so no more than these are kept back.
constexpr size_t kMostKept = 64;

bool has_invalid_client_id_error(const Message& message) {
  const auto result = qmi::find_tlv(message.tlvs, qmi::kResultTlv);
  return result && result->size() == qmi::kResultLength && qmi::load_u16(&(*result)[0]) != QMI_RESULT_SUCCESS_V01 &&
         qmi::load_u16(&(*result)[2]) == QMI_ERR_INVALID_CLIENT_ID_V01;
}

bool offers(const std::vector<ListedService>& services, uint8_t service) {
  return std::any_of(services.begin(), services.end(), [=](const auto& entry) { return entry.number == service; });
}

// A device has one record, whether it is opened directly or by a proxy.
ClientIdRecord record_of(const ModemAddress& named) {
  const ModemAddress address = look_at_path(named);
  const bool is_socket = address.kind == ModemAddress::Kind::kQmuxSocket;
  return ClientIdRecord(is_socket ? address.path : kProxySocket, is_socket ? kDefaultDevice : address.path);
}

// How many client ids of the service this process lost; a notifier's own link may not report the loss.
std::atomic<uint32_t>& losses(uint8_t service) {
  static std::atomic<uint32_t> counts[UINT8_MAX + 1];
  return counts[service];
}

// Releases ids that dead processes left. The caller has removed them from the record; those that are not released are
// entered in it again.
void release_abandoned(const std::vector<ClientIdRecord::Id>& ids, QmuxLink& link, const ClientIdRecord& record,
                       const Deadline& end) {
  const Deadline deadline = earlier(end, Deadline::after(kReleaseTimeout));
  auto id = ids.begin();
  auto outcome = Outcome::kSuccess;
  while (id != ids.end() && outcome != Outcome::kNoResponse && outcome != Outcome::kNotSent && !deadline.has_passed()) {
    outcome = link.release_client_id(id->service, id->client, deadline);
    // A release that was sent in part goes out before the link's next message.
    if (outcome != Outcome::kNotSent || link.has_unsent()) ++id;
  }
  record.restore({id, ids.end()}, end);
}

}  // namespace

// --- the check of a client id ---

ClientIdCheck::Verdict ClientIdCheck::check(const Message& message) {
  if (message.kind != qmi::MessageKind::kResponse) return Verdict::kDeliver;
  const bool is_refused = has_invalid_client_id_error(message);
  if (message.id == kGetSupportedMessages && message.transaction == probe_) {
    if (is_refused) return Verdict::kVoid;
    probe_.reset();  // a later request may have the same number
    if (state_ == State::kProbeSent) settle();
    return Verdict::kKept;
  }
  if (!is_refused || kept_.size() == kMostKept) return Verdict::kDeliver;
  Kept& kept = kept_.emplace_back(Kept{message, {message.tlvs.begin(), message.tlvs.end()}});
  kept.message.kept_since = Deadline::Clock::now();
  if (state_ == State::kSettled) {
    state_ = State::kProbeDue;
    deadline_ = Deadline::after(kProbeTimeout);
  }
  return Verdict::kKept;
}

bool ClientIdCheck::take_kept(Message& message) {
  if (deadline_.has_passed()) settle();
  if (state_ != State::kSettled || kept_.empty()) return false;
  message = kept_.front().message;
  taken_ = std::move(kept_.front().tlvs);
  message.tlvs = taken_;
  kept_.pop_front();
  return true;
}

void ClientIdCheck::store_probe(uint8_t* at, uint16_t transaction) {
  qmi::store_message_header(at, qmi::MessageKind::kRequest, transaction, kGetSupportedMessages, 0);
  probe_ = transaction;
  state_ = State::kProbeSent;
}

void ClientIdCheck::settle() {
  state_ = State::kSettled;
  deadline_ = Deadline::none();
}

// --- a connection ---

QmuxConnection::QmuxConnection(QmuxLink link, ClientIdRecord record, uint8_t service, uint8_t client,
                               size_t message_capacity)
    : link_(std::move(link)),
      record_(std::move(record)),
      id_{service, client},
      capacity_(std::min(message_capacity, kMaxMessageLength)),
      frame_(new uint8_t[qmi::kFrameHeaderLength + capacity_]) {}

QmuxConnection::~QmuxConnection() {
  abandon(Deadline::after(kReleaseTimeout));
}

SendStatus QmuxConnection::send(size_t length) {
  qmi::store_frame_header(frame_.get(), qmi::Direction::kToModem, id_.service, id_.client, length);
  return link_.send({frame_.get(), qmi::kFrameHeaderLength + length});
}

Arrival QmuxConnection::next(Message& message) {
  qmi::Frame frame;
  while (!check_.take_kept(message)) {
    if (!link_.next(frame)) return link_.is_broken() ? Arrival::kBrokenStream : Arrival::kNone;
    const auto arrived = qmi::read_message(frame);
    if (!arrived) continue;
    if (frame.service == qmi::kControlService) {
      if (voids_client_id(read_control_indication(*arrived))) return Arrival::kServiceGone;
    } else if (is_for_this_client(frame, arrived->kind)) {
      message = {*arrived};
      const auto verdict = check_.check(message);
      if (verdict == ClientIdCheck::Verdict::kDeliver) break;
      if (verdict == ClientIdCheck::Verdict::kVoid) {
        lose_id(IdState::kVoid);
        losses(id_.service).fetch_add(1, std::memory_order_relaxed);
        return Arrival::kServiceGone;
      }
    }
  }
  return Arrival::kMessage;
}

bool QmuxConnection::take_kept(Message& message) {
  check_.settle();
  return check_.take_kept(message);
}

void QmuxConnection::send_probe(uint16_t transaction) {
  uint8_t probe[qmi::kFrameHeaderLength + ClientIdCheck::kProbeLength];
  qmi::store_frame_header(probe, qmi::Direction::kToModem, id_.service, id_.client, ClientIdCheck::kProbeLength);
  check_.store_probe(probe + qmi::kFrameHeaderLength, transaction);
  link_.send(probe);
}

void QmuxConnection::close(const Deadline& deadline) {
  if (take_id(deadline) && link_.release_client_id(id_.service, id_.client, deadline) == Outcome::kNotSent) {
    record_.restore({id_}, deadline);
  }
  shut_down();
}

void QmuxConnection::abandon(const Deadline& deadline) {
  if (take_id(deadline) && link_.send_release_client_id(id_.service, id_.client) != SendStatus::kSent) {
    record_.restore({id_}, deadline);
  }
  shut_down();
}

bool QmuxConnection::voids_client_id(const ControlIndication& indication) {
  if (indication.event == ControlIndication::kRestarted) {
    lose_id(IdState::kVoid);
    return true;
  }
  const bool is_revoked = indication.event == ControlIndication::kRevoked &&
                          ClientIdRecord::Id{indication.service, indication.client} == id_;
  if (is_revoked) {
    lose_id(IdState::kRevoked);
    losses(id_.service).fetch_add(1, std::memory_order_relaxed);
  }
  return is_revoked;
}

bool QmuxConnection::is_for_this_client(const qmi::Frame& frame, qmi::MessageKind kind) const {
  if (frame.service != id_.service) return false;
  return kind == qmi::MessageKind::kIndication ? frame.client == id_.client || frame.client == qmi::kAllClients
                                               : frame.client == id_.client && kind == qmi::MessageKind::kResponse;
}

// The record is updated at the connection's end, because the reader must not wait for files.
void QmuxConnection::lose_id(IdState how) {
  IdState held = IdState::kHeld;
  id_state_.compare_exchange_strong(held, how);
}

// Gives up the id and removes it from the record. Returns true, in one call at most, if the caller must release the id
// at the modem.
bool QmuxConnection::take_id(const Deadline& deadline) {
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

int32_t open_qmux_connection(const ModemAddress& address, const ServiceName& service, size_t message_capacity,
                             const Deadline& deadline, std::unique_ptr<Connection>& connection) {
  const auto number = static_cast<uint8_t>(service.number);
  if (number != service.number || number == qmi::kControlService) return QMI_CLIENT_PARAM_ERR;
  QmuxLink link;
  std::vector<ListedService> services;
  if (link.open(address, deadline) || link.get_services(services, deadline) != Outcome::kSuccess ||
      !offers(services, number)) {
    return QMI_TIMEOUT_ERR;
  }
  ClientIdRecord record = record_of(address);
  uint8_t client = 0;
  Outcome outcome = link.allocate_client_id(number, client, deadline);
  if (outcome == Outcome::kClientIdsExhausted) {
    release_abandoned(record.take_abandoned(deadline), link, record, deadline);
    outcome = link.allocate_client_id(number, client, deadline);
  }
  switch (outcome) {
    case Outcome::kSuccess:
      release_abandoned(record.add({number, client}, deadline), link, record, deadline);
      if (link.take_restart()) {
        record.void_own(deadline);
        return QMI_TIMEOUT_ERR;
      }
      if (link.is_revoked(number, client)) {
        record.remove(deadline);
        return QMI_TIMEOUT_ERR;
      }
      break;
    case Outcome::kNoResponse:
    case Outcome::kNotSent:
      return QMI_TIMEOUT_ERR;
    case Outcome::kClientIdsExhausted:
      syslog(LOG_ERR, "QMI service 0x%02x: no client id is left (QMI error 5, client ids exhausted): %s",
             unsigned{number}, "end programs that use the modem, or restart it");
      observe({.kind = Observation::Kind::kEnd, .error = QMI_ERR_CLIENT_IDS_EXHAUSTED_V01});
      return QMI_CLIENT_ALLOC_FAILURE;
    case Outcome::kFailure:
      return QMI_CLIENT_ALLOC_FAILURE;
  }
  connection = std::make_unique<QmuxConnection>(std::move(link), std::move(record), number, client, message_capacity);
  return QMI_NO_ERR;
}

// --- a watch ---

QmuxWatch::QmuxWatch(ModemAddress address, uint8_t service)
    : address_(std::move(address)), service_(service), losses_seen_(losses(service)) {}

Presence QmuxWatch::look() {
  const Deadline deadline = Deadline::after(kLookTimeout);
  const uint32_t losses_now = losses(service_).load(std::memory_order_relaxed);
  Presence presence = {false, std::exchange(losses_seen_, losses_now) != losses_now};
  if (link_.is_open()) {
    if (look_over_link(presence, deadline)) return presence;
    presence.went_meanwhile = true;
  }
  if (!link_.open(address_, deadline)) look_over_link(presence, deadline);
  return presence;
}

bool QmuxWatch::look_over_link(Presence& presence, const Deadline& deadline) {
  std::vector<ListedService> services;
  if (link_.get_services(services, deadline) != Outcome::kSuccess) {
    link_.close();
    return false;
  }
  presence.is_there = offers(services, service_);
  presence.went_meanwhile |= link_.take_revocation(service_);
  if (link_.take_restart()) {
    presence.went_meanwhile = true;
    // The ids of dead processes are void. Those of live processes may be older or newer than the restart.
    record_of(address_).take_abandoned(deadline);
  }
  return true;
}

std::unique_ptr<ServiceWatch> watch_qmux_service(const ModemAddress& address, uint32_t service) {
  return std::make_unique<QmuxWatch>(address, static_cast<uint8_t>(service));
}

// --- an inspection ---

void inspect_qmux(const ModemAddress& named, const Deadline& deadline, ModemReport& report) {
  const ModemAddress address = look_at_path(named);
  const bool is_device = address.kind == ModemAddress::Kind::kDevice;
  if (address.kind == ModemAddress::Kind::kProxy) {
    report.transport = "QMUX through qmi-proxy on the device " + address.path;
  } else {
    report.transport = is_device ? "QMUX on the character device" : "QMUX on the Unix socket";
  }
  QmuxLink link;
  if (const Problem problem = link.open(address, deadline)) {
    report.problem = problem.text;
    report.may_come = problem.is_temporary;
    return;
  }
  if (link.get_services(report.services, deadline) == Outcome::kSuccess) return;
  report.may_come = !is_device;
  report.problem = deadline.has_passed() ? "no response to a request for the list of services came in time"
                                         : "it does not speak QMUX";
  if (is_device) report.problem += ": is it the QMI device of the modem?";
}

std::vector<HeldClientId> list_client_ids(const ModemAddress& address, const Deadline& deadline) {
  return record_of(address).held(deadline);
}

}  // namespace pelmar::platform
