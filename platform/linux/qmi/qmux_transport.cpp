#include "qmux_transport.h"

#include <algorithm>
#include <utility>

#include "common_v01.h"
#include "observer.h"
#include "qmi_client.h"
#include "qmux_link.h"

namespace pelmar::platform {
namespace {

// A modem that takes longer for a look at its services counts as absent.
constexpr Deadline::Milliseconds kLookTimeout{2000};

constexpr size_t kMaxMessageLength = UINT16_MAX - (kQmuxHeaderLength - 1);

bool offers(const std::vector<uint8_t>& services, uint8_t service) {
  return std::find(services.begin(), services.end(), service) != services.end();
}

class QmuxConnection final : public Connection {
 public:
  QmuxConnection(QmuxLink link, uint8_t service, uint8_t client, size_t message_capacity)
      : link_(std::move(link)),
        service_(service),
        client_(client),
        capacity_(std::min(message_capacity, kMaxMessageLength)),
        frame_(new uint8_t[kQmuxHeaderLength + capacity_]) {}

  int descriptor() const override { return link_.stream().descriptor(); }
  uint8_t* message_buffer() override { return frame_.get() + kQmuxHeaderLength; }
  size_t message_capacity() const override { return capacity_; }

  SendStatus send(size_t length) override {
    store_qmux_header(frame_.get(), service_, client_, length);
    return link_.stream().send(frame_.get(), kQmuxHeaderLength + length);
  }
  bool has_unsent() const override { return link_.stream().has_unsent(); }
  SendStatus flush(const Deadline& deadline) override { return link_.stream().flush(deadline); }
  ReadStatus read(const Deadline& deadline) override { return link_.read(deadline); }

  Arrival next(Message& message) override {
    Frame frame;
    while (link_.next(frame)) {
      ControlIndication indication;
      if (load_control_indication(frame, indication)) {
        if (voids_client_id(indication)) return Arrival::kServiceGone;
      } else if (is_for_us(frame) && load_message(frame.message, frame.length, message) &&
                 (frame.client != kAllClients || message.kind == MessageKind::kIndication)) {
        return Arrival::kMessage;
      }
    }
    return Arrival::kNone;
  }

  std::optional<Deadline::Clock::time_point> partial_since() const override { return link_.partial_since(); }

  void close(const Deadline& deadline) override {
    link_.release_client_id(service_, client_, deadline);
    shut_down();
  }

  void abandon() override {
    link_.send_release_client_id(service_, client_);
    shut_down();
  }

  void shut_down() override { link_.stream().shut_down(); }

 private:
  bool voids_client_id(const ControlIndication& indication) const {
    return indication.event == ControlIndication::kRestarted ||
           (indication.event == ControlIndication::kRevoked && indication.service == service_ &&
            indication.client == client_);
  }
  bool is_for_us(const Frame& frame) const {
    return frame.service == service_ && (frame.client == client_ || frame.client == kAllClients);
  }

  QmuxLink link_;
  const uint8_t service_;
  const uint8_t client_;
  const size_t capacity_;
  const std::unique_ptr<uint8_t[]> frame_;
};

// Asks the modem's CTL service again and again over a connection of its own, which holds no client id.
class QmuxWatch final : public ServiceWatch {
 public:
  explicit QmuxWatch(uint8_t service) : service_(service) {}

  Presence look() override {
    const Deadline deadline = Deadline::after(kLookTimeout);
    Presence presence = {false, false};
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
    presence.went_meanwhile |= link_.take_restart();
    return true;
  }

  const uint8_t service_;
  QmuxLink link_;
};

}  // namespace

int32_t QmuxTransport::open(uint32_t service, size_t message_capacity, const Deadline& deadline,
                            std::unique_ptr<Connection>& connection) {
  if (service == kControlService || service > UINT8_MAX) return QMI_CLIENT_PARAM_ERR;
  const auto number = static_cast<uint8_t>(service);
  QmuxLink link;
  std::vector<uint8_t> services;
  if (!link.open(deadline) || link.get_services(services, deadline) != QmuxLink::Answer::kSuccess ||
      !offers(services, number)) {
    return QMI_TIMEOUT_ERR;
  }
  uint8_t client = 0;
  switch (link.allocate_client_id(number, client, deadline)) {
    case QmuxLink::Answer::kSuccess:
      break;
    case QmuxLink::Answer::kNoAnswer:
      return QMI_TIMEOUT_ERR;
    case QmuxLink::Answer::kClientIdsExhausted:
      observe({.kind = Observation::Kind::kEnd, .error = QMI_ERR_CLIENT_IDS_EXHAUSTED_V01});
      return QMI_CLIENT_ALLOC_FAILURE;
    case QmuxLink::Answer::kFailure:
      return QMI_CLIENT_ALLOC_FAILURE;
  }
  connection = std::make_unique<QmuxConnection>(std::move(link), number, client, message_capacity);
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
