#include "replay/recorded_traffic.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <stdexcept>

#include "ctl_messages.h"
#include "io/text.h"
#include "qmi/modem.h"
#include "unique_fd.h"

namespace pelmar::sim {

namespace {

// The approximate bytes that the structures of a message take.
constexpr size_t kOverhead = 128;

RecordedTraffic::Time between(RecordedTraffic::Time earlier, RecordedTraffic::Time later) {
  if (later <= earlier) return {};
  const uint64_t passed = static_cast<uint64_t>(later.count()) - static_cast<uint64_t>(earlier.count());
  constexpr uint64_t kMost = RecordedTraffic::kLongest.count();
  return RecordedTraffic::Time(std::min(passed, kMost));
}

uint64_t pending_key(uint32_t client, uint16_t transaction) {
  return uint64_t{client} << 16 | transaction;
}

}  // namespace

uint16_t RecordedTraffic::Exchange::message() const {
  return qmi::load_u16(reinterpret_cast<const uint8_t*>(request.data()));
}

RecordedTraffic::RecordedTraffic(const std::string& path) {
  using Status = qmi::CaptureReader::Status;
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) throw std::runtime_error("cannot read the capture '" + path + "': " + strerror(errno));
  qmi::CaptureReader reader(file.get());
  qmi::CapturedMessage captured;
  uint64_t unusable = 0;
  Status status = reader.next(captured);
  for (; status == Status::kMessage && !is_full(); status = reader.next(captured)) {
    const auto message = qmi::read_message(captured.frame);
    if (message && !captured.is_cut) {
      add(captured, *message);
    } else {
      ++unusable;
    }
  }
  if (status == Status::kNoCapture) {
    throw std::runtime_error("'" + path + "' is no capture (pcapng): 'modem_sim serve --trace FILE' records one");
  }
  if (status != Status::kEnd) {
    fprintf(stderr, "modem_sim: ignoring '%s' from byte %" PRIu64 " on%s\n", path.c_str(), reader.position(),
            is_full() ? ": it is too long" : "");
  }
  unusable += reader.skipped();
  if (unusable > 0) {
    fprintf(stderr, "modem_sim: ignoring %" PRIu64 " packets of '%s' that are no whole QMI messages\n", unusable,
            path.c_str());
  }
  if (exchanges_.empty()) throw std::runtime_error("the capture '" + path + "' has no request of a QMI client");
  while (!down_.empty()) service_is_up(down_.begin()->first, Time(captured.time_ns));
  open_.clear();
  pending_.clear();
  allocating_.clear();
  make_index();
}

RecordedTraffic::Bytes RecordedTraffic::keep(std::span<const uint8_t> bytes) {
  kept_ += bytes.size() + kOverhead;
  return bytes_.emplace_back(text_of(bytes));
}

uint32_t RecordedTraffic::client_of(const ClientKey& key) {
  const auto [place, is_new] = open_.try_emplace(key, static_cast<uint32_t>(clients_.size()));
  if (is_new) {
    clients_.push_back({.service = std::get<1>(key), .indications = {}});
    kept_ += kOverhead;
  }
  return place->second;
}

void RecordedTraffic::add(const qmi::CapturedMessage& captured, const qmi::Message& message) {
  const qmi::Frame& frame = captured.frame;
  const Time time(captured.time_ns);
  if (frame.service == qmi::kControlService) return add_control(captured.link, time, message);
  const bool is_from_modem = captured.direction == qmi::Direction::kFromModem;
  if (is_from_modem && message.kind == qmi::MessageKind::kIndication) {
    const Indication indication = {Event::kMessage, message.id, keep(message.tlvs)};
    const bool is_for_all = frame.client == qmi::kAllClients;
    auto place = open_.lower_bound({captured.link, frame.service, is_for_all ? uint8_t{0} : frame.client});
    const ClientKey last = {captured.link, frame.service, frame.client};
    for (; place != open_.end() && place->first <= last; ++place) add_indication(place->second, time, indication);
    return;
  }
  const uint32_t client = client_of({captured.link, frame.service, frame.client});
  const uint64_t key = pending_key(client, message.transaction);
  if (!is_from_modem && message.kind == qmi::MessageKind::kRequest) {
    const auto number = static_cast<uint32_t>(exchanges_.size());
    exchanges_.push_back({client, keep(frame.message.subspan(kTransactionEnd)), false, time, {}, {}});
    if (clients_[client].requests++ == 0) clients_[client].first = number;
    clients_[client].last = number;
    pending_[key] = number;
  } else if (const auto request = pending_.find(key); is_from_modem && request != pending_.end()) {
    Exchange& exchange = exchanges_[request->second];
    exchange.has_response = true;
    exchange.delay = between(exchange.sent, time);
    exchange.response = keep(message.tlvs);
    pending_.erase(request);
  }
}

// A client id that is allocated is a new client. After a restart of the modem, all are. A service whose client ids are
// revoked is down until it allocates one or is in the list of versions.
void RecordedTraffic::add_control(uint32_t link, Time time, const qmi::Message& message) {
  const auto value = qmi::find_tlv(message.tlvs, 0x01).value_or(std::span<const uint8_t>());
  const bool is_indication = message.kind == qmi::MessageKind::kIndication;
  const bool is_response = message.kind == qmi::MessageKind::kResponse;
  if (message.id == ctl::kAllocateClientId) add_allocation({link, message.transaction}, message, value);
  if (is_response && message.id == ctl::kAllocateClientId && value.size() == 2) {
    open_.erase({link, value[0], value[1]});
    service_is_up(value[0], time);
  } else if (is_response && message.id == ctl::kGetVersionInfo) {
    constexpr size_t kVersionLength = 5;
    for (size_t at = 1; at + kVersionLength <= value.size(); at += kVersionLength) service_is_up(value[at], time);
  } else if (is_indication && message.id == ctl::kRevokeClientId && value.size() == 2) {
    const auto place = open_.find({link, value[0], value[1]});
    if (place == open_.end()) return;
    add_indication(place->second, time, {Event::kServiceDown});
    down_[value[0]].emplace_back(place->second, time);
    open_.erase(place);
  } else if (is_indication && message.id == ctl::kSync) {
    const auto first = open_.lower_bound({link, uint8_t{0}, uint8_t{0}});
    const auto last = open_.upper_bound({link, UINT8_MAX, UINT8_MAX});
    for (auto place = first; place != last; ++place) add_indication(place->second, time, {Event::kRestart});
    open_.erase(first, last);
  }
}

void RecordedTraffic::add_allocation(const ControlKey& key, const qmi::Message& message,
                                     std::span<const uint8_t> value) {
  if (message.kind == qmi::MessageKind::kRequest && value.size() == 1) {
    allocating_[key] = value[0];
    kept_ += kOverhead;
  } else if (message.kind == qmi::MessageKind::kResponse) {
    const auto service = allocating_.extract(key);
    if (!service) return;
    const auto result = qmi::find_tlv(message.tlvs, qmi::kResultTlv);
    if (!result || result->size() != qmi::kResultLength) return;
    allocations_[service.mapped()].push_back(qmi::load_u16(&(*result)[2]));
  }
}

// The event of the service's end is the last one of each client.
void RecordedTraffic::service_is_up(uint8_t service, Time time) {
  const auto ended = down_.extract(service);
  if (!ended) return;
  for (const auto& [client, since] : ended.mapped()) {
    auto& indications = clients_[client].indications;
    if (!indications.empty()) indications.back().down_for = between(since, time);
  }
}

void RecordedTraffic::add_indication(uint32_t client, Time time, const Indication& indication) {
  Client& to = clients_[client];
  if (to.requests == 0) return;
  to.indications.push_back(indication);
  to.indications.back().offset = between(exchanges_[to.first].sent, time);
  to.indications.back().requests_before = to.requests;
  kept_ += kOverhead;
}

namespace {

// Returns the key that the numbers of exchanges are sorted by, before their own order.
auto request_of(const RecordedTraffic& traffic) {
  return [&traffic](uint32_t number) {
    const RecordedTraffic::Exchange& exchange = traffic.exchange(number);
    return std::pair(traffic.clients()[exchange.client].service, exchange.request);
  };
}
auto message_of(const RecordedTraffic& traffic) {
  return [&traffic](uint32_t number) {
    const RecordedTraffic::Exchange& exchange = traffic.exchange(number);
    return std::pair(traffic.clients()[exchange.client].service, exchange.message());
  };
}

template <typename Key, typename KeyOf>
RecordedTraffic::Numbers find_equal(const std::vector<uint32_t>& sorted, const Key& key, KeyOf key_of) {
  const auto is_before = [&](uint32_t number, const Key& wanted) { return key_of(number) < wanted; };
  const auto is_behind = [&](const Key& wanted, uint32_t number) { return wanted < key_of(number); };
  return {std::lower_bound(sorted.begin(), sorted.end(), key, is_before),
          std::upper_bound(sorted.begin(), sorted.end(), key, is_behind)};
}

template <typename KeyOf>
void sort_by(std::vector<uint32_t>& numbers, KeyOf key_of) {
  std::stable_sort(numbers.begin(), numbers.end(), [&](uint32_t a, uint32_t b) { return key_of(a) < key_of(b); });
}

}  // namespace

void RecordedTraffic::make_index() {
  by_request_.resize(exchanges_.size());
  std::iota(by_request_.begin(), by_request_.end(), 0);
  by_message_ = by_request_;
  sort_by(by_request_, request_of(*this));
  sort_by(by_message_, message_of(*this));
}

RecordedTraffic::Numbers RecordedTraffic::same_request(uint8_t service, Bytes request) const {
  return find_equal(by_request_, std::pair(service, request), request_of(*this));
}

RecordedTraffic::Numbers RecordedTraffic::same_message(uint8_t service, uint16_t message) const {
  return find_equal(by_message_, std::pair(service, message), message_of(*this));
}

}  // namespace pelmar::sim
