// What a capture has of a modem's clients: their requests with the responses to them, and the indications that they
// received.
//
// A recorded client is a client id of a service on one link, from its allocation on, if the capture contains it. The
// capture may come from the client's side or from the modem's, with any number of processes. Its bytes may be anything;
// what is kept of it has a bound.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "capture.h"

namespace pelmar::sim {

// The end of the transaction number of a service's message. Equal requests have equal bytes after it.
inline constexpr size_t kTransactionEnd = 3;

class RecordedTraffic {
 public:
  using Time = std::chrono::nanoseconds;
  using Bytes = std::string_view;  // of the capture

  // No time of a capture is longer, whatever the clocks that took it.
  static constexpr Time kLongest = std::chrono::hours(24 * 365);

  struct Exchange {
    uint32_t client;
    Bytes request;  // what follows the transaction: message id, length, TLVs
    bool has_response = false;
    Time sent{};
    Time delay{};    // of the response
    Bytes response;  // its TLVs

    uint16_t message() const;
  };

  // What the modem did: it sent a message to the client, restarted, or took the client's service down.
  enum class Event { kMessage, kRestart, kServiceDown };

  struct Indication {
    Event event;
    uint16_t message = 0;
    Bytes tlvs = {};
    Time offset{};                 // since the client's first request
    uint32_t requests_before = 0;  // of the client
    Time down_for{};               // the service
  };

  struct Client {
    uint8_t service;
    uint32_t requests = 0;
    uint32_t first = 0;  // its first exchange
    uint32_t last = 0;
    std::vector<Indication> indications;
  };

  // Reads a capture. What cannot be used of it is reported on standard error. Throws std::runtime_error where the file
  // cannot be read, is no capture, or has no request.
  explicit RecordedTraffic(const std::string& path);

  // In the order of their first messages.
  const std::vector<Client>& clients() const { return clients_; }
  const Exchange& exchange(uint32_t number) const { return exchanges_[number]; }

  // Numbers of exchanges, ascending: those whose request has these bytes, or this message id.
  using Numbers = std::span<const uint32_t>;
  Numbers same_request(uint8_t service, Bytes request) const;
  Numbers same_message(uint8_t service, uint16_t message) const;

  // The errors of the allocations of a service's client ids, in order; 0 for a success.
  std::span<const uint16_t> allocations(uint8_t service) const { return allocations_[service]; }

 private:
  using ClientKey = std::tuple<uint32_t, uint8_t, uint8_t>;  // link, service, client id
  using ControlKey = std::pair<uint32_t, uint16_t>;          // link, transaction

  bool is_full() const { return kept_ > kMaxKept; }
  Bytes keep(std::span<const uint8_t> bytes);
  uint32_t client_of(const ClientKey& key);
  void add(const qmi::CapturedMessage& captured, const qmi::Message& message);
  void add_control(uint32_t link, Time time, const qmi::Message& message);
  void add_allocation(const ControlKey& key, const qmi::Message& message, std::span<const uint8_t> value);
  void add_indication(uint32_t client, Time time, const Indication& indication);
  void service_is_up(uint8_t service, Time time);
  void make_index();

  static constexpr size_t kMaxKept = size_t{256} << 20;

  size_t kept_ = 0;  // bytes, also of the structures
  std::deque<std::string> bytes_;
  std::vector<Client> clients_;
  std::deque<Exchange> exchanges_;
  std::vector<uint32_t> by_request_;
  std::vector<uint32_t> by_message_;
  std::array<std::vector<uint16_t>, 256> allocations_;

  // While the capture is read.
  std::map<ClientKey, uint32_t> open_;
  std::unordered_map<uint64_t, uint32_t> pending_;                  // by client and transaction
  std::map<uint8_t, std::vector<std::pair<uint32_t, Time>>> down_;  // the clients that a service had when it went down
  std::map<ControlKey, uint8_t> allocating_;                        // the service of each request
};

}  // namespace pelmar::sim
