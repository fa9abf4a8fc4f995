#include "replay/replay.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "io/text.h"
#include "message_text.h"

namespace pelmar::sim {

namespace {

// How long an indication waits, after its time, for the requests that precede it.
constexpr std::chrono::seconds kTimeout{1};

constexpr size_t kMaxReported = 100;

}  // namespace

// A service object without messages.
struct Replay::EmptyObject {
  explicit EmptyObject(uint8_t service) {
    char text[8];
    snprintf(text, sizeof text, "0x%02x", service);
    name = text;
    object.idl_version = 1;
    object.service_id = service;
  }

  std::string name;
  qmi_idl_service_object object{};
};

class Replay::RecordedService final : private EmptyObject, public Service {
 public:
  explicit RecordedService(uint8_t service)
      : EmptyObject(service), Service(EmptyObject::name, &(EmptyObject::object), {}) {}
  using Service::name;
};

Replay::Replay(EventLoop& loop, const std::string& path, double speed)
    : loop_(loop), traffic_(path), speed_(speed), is_played_(traffic_.clients().size()) {}

Replay::~Replay() = default;

std::vector<Service*> Replay::with_recorded_services(std::vector<Service*> services) {
  for (const RecordedTraffic::Client& client : traffic_.clients()) {
    const auto is_same = [&](const Service* each) { return each->id() == client.service; };
    if (std::any_of(services.begin(), services.end(), is_same)) continue;
    services.push_back(services_.emplace_back(std::make_unique<RecordedService>(client.service)).get());
  }
  return services;
}

void Replay::attach(Modem& modem, EventLoop::Task restart_modem) {
  modem_ = &modem;
  restart_modem_ = std::move(restart_modem);
  modem.when_client_gone([this](uint8_t service, uint8_t client) {
    const auto player = players_.find({service, client});
    if (player == players_.end()) return;
    loop_.cancel(player->second.timer);
    players_.erase(player);
  });
}

EventLoop::Clock::duration Replay::scaled(RecordedTraffic::Time time) const {
  const std::chrono::duration<double, std::nano> passed = time / speed_;
  return passed < RecordedTraffic::kLongest ? RecordedTraffic::Time(std::llround(passed.count()))
                                            : RecordedTraffic::kLongest;
}

// Returns the index of a recorded client, or the number of recorded clients if the service has none.
uint32_t Replay::assign(uint8_t service, RecordedTraffic::Bytes request) {
  const auto& clients = traffic_.clients();
  const auto end = static_cast<uint32_t>(clients.size());
  const auto can_play = [&](uint32_t number) {
    return clients[number].service == service && clients[number].requests > 0;
  };
  for (const bool is_again : {false, true}) {
    uint32_t found = end;
    for (uint32_t number = end; number-- > 0;) {
      if (!can_play(number)) continue;
      if (is_again) is_played_[number] = false;
      if (is_played_[number]) continue;
      const auto begins_alike = [&](uint32_t each) {
        return traffic_.exchange(clients[each].first).request == request;
      };
      if (found == end || begins_alike(number) || !begins_alike(found)) found = number;
    }
    if (found == end) continue;
    is_played_[found] = true;
    return found;
  }
  return end;
}

// Returns the exchange after the last one that was taken, or else that one again; null if none ever was.
const RecordedTraffic::Exchange* Replay::take(Player& player, RecordedTraffic::Numbers numbers, bool only_own) const {
  if (numbers.empty() || (only_own && player.recorded == traffic_.clients().size())) return nullptr;
  const auto key = std::pair(numbers.data(), only_own);
  const auto last = player.taken.find(key);
  auto next = numbers.begin();
  if (last != player.taken.end()) {
    next = std::upper_bound(next, numbers.end(), last->second);
  } else if (only_own) {
    next = std::lower_bound(next, numbers.end(), traffic_.clients()[player.recorded].first);
  }
  const auto is_own = [&](uint32_t number) { return traffic_.exchange(number).client == player.recorded; };
  if (only_own) {
    const auto end = std::upper_bound(next, numbers.end(), traffic_.clients()[player.recorded].last);
    next = std::find_if(next, end, is_own);
    if (next == end) next = numbers.end();
  }
  if (next != numbers.end()) {
    player.taken[key] = *next;
    return &traffic_.exchange(*next);
  }
  return last == player.taken.end() ? nullptr : &traffic_.exchange(last->second);
}

std::optional<Replay::Response> Replay::respond(const qmi::Frame& frame) {
  const RecordedTraffic::Bytes request = text_of(frame.message.subspan(kTransactionEnd));
  const ClientKey key = {frame.service, frame.client};
  auto place = players_.find(key);
  if (place == players_.end()) {
    place = players_.emplace(key, Player{assign(frame.service, request), EventLoop::Clock::now()}).first;
  }
  Player& player = place->second;
  ++player.requests;
  loop_.post([this, key] { send_due(key); });

  const uint16_t message = qmi::load_u16(&frame.message[kTransactionEnd]);
  for (const auto& numbers :
       {traffic_.same_request(frame.service, request), traffic_.same_message(frame.service, message)}) {
    for (const bool only_own : {true, false}) {
      const RecordedTraffic::Exchange* const found = take(player, numbers, only_own);
      if (found != nullptr) return Response{!found->has_response, scaled(found->delay), bytes_of(found->response)};
    }
  }
  report_missing(frame.service, message);
  return std::nullopt;
}

QmiError Replay::allocation_error(uint8_t service, QmiError present) {
  const std::span<const uint16_t> recorded = traffic_.allocations(service);
  if (recorded.empty()) return present;
  size_t& next = next_allocation_[service];
  const QmiError error = recorded[next];
  // A success stays the next outcome until the modem has an id.
  if (error != QMI_ERR_NONE_V01 || present == QMI_ERR_NONE_V01) next = (next + 1) % recorded.size();
  return error != QMI_ERR_NONE_V01 ? error : present;
}

void Replay::report_missing(uint8_t service, uint16_t message) {
  if (reported_.size() == kMaxReported || !reported_.emplace(service, message).second) return;
  fprintf(stderr, "modem_sim: the capture has no message %s %s; the response is error 94%s\n",
          qmi::service_text(service).c_str(), qmi::message_text(service, message).c_str(),
          reported_.size() == kMaxReported ? " (further messages are not reported)" : "");
}

// Sends the indications whose time has come.
void Replay::send_due(ClientKey key) {
  const auto place = players_.find(key);
  if (place == players_.end() || place->second.recorded == traffic_.clients().size()) return;
  Player& player = place->second;
  const auto& indications = traffic_.clients()[player.recorded].indications;
  loop_.cancel(player.timer);
  while (player.next_indication < indications.size()) {
    const RecordedTraffic::Indication& next = indications[player.next_indication];
    auto due = player.start + scaled(next.offset);
    if (player.requests < next.requests_before) due += kTimeout;
    const auto now = EventLoop::Clock::now();
    if (due > now) {
      player.timer = loop_.after(due - now, [this, key] { send_due(key); });
      return;
    }
    Modem::Slot& slot = *modem_->find(key.first);
    Connection& connection = *slot.clients.owner(key.second);
    if (!connection.is_drained()) {
      if (std::exchange(player.waits_for_reader, true)) return;
      connection.when_drained([this, key] {
        const auto waiting = players_.find(key);
        if (waiting != players_.end()) waiting->second.waits_for_reader = false;
        send_due(key);
      });
      return;
    }
    ++player.next_indication;
    using Event = RecordedTraffic::Event;
    if (next.event == Event::kRestart) return restart_modem_();  // ends all players
    if (next.event == Event::kServiceDown) {
      loop_.after(scaled(next.down_for), [this, &slot] { modem_->bring_up(slot); });
      return modem_->take_down(slot);  // ends all players of the service
    }
    const auto is_receiver = [&](uint8_t client) { return client == key.second; };
    modem_->indicate(slot, next.message, bytes_of(next.tlvs), is_receiver);
    if (!players_.contains(key)) return;  // its connection did not take the indication
  }
}

}  // namespace pelmar::sim
