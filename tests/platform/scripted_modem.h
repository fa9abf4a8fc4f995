// A modem that a test controls: it serves CTL itself and queues the requests to all other services for the test. It
// sets PELMAR_MODEM to its socket, and XDG_STATE_HOME to a directory of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <initializer_list>
#include <iterator>
#include <list>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "unique_fd.h"
#include "unix_socket.h"

namespace pelmar::platform {

// A value that several threads read and change, and wait for.
template <typename T>
class SharedValue {
 public:
  explicit SharedValue(T value = {}) : value_(std::move(value)) {}

  // Runs the function under the lock and returns its result.
  template <typename Function>
  auto change(const Function& function) {
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
    return function(value_);
  }
  T get() {
    return change([](const T& value) { return value; });
  }
  void set(T value) {
    change([&](T& own) { own = std::move(value); });
  }
  // Waits up to a minute until the condition holds. Returns whether it holds.
  template <typename Condition>
  bool wait_until(const Condition& condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return condition(value_); });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  T value_;
};

using Bytes = std::vector<uint8_t>;

inline Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}
inline Bytes u16(size_t value) {
  return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}
inline uint16_t u16_at(const Bytes& bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

// A message of a service, and the QMUX frame of a message from the modem.
inline Bytes message(uint8_t flags, uint16_t transaction, uint16_t id, const Bytes& tlvs) {
  return join({{flags}, u16(transaction), u16(id), u16(tlvs.size()), tlvs});
}
inline Bytes frame(uint8_t service, uint8_t client, const Bytes& message) {
  return join({{0x01}, u16(5 + message.size()), {0x80, service, client}, message});
}

// TLVs of responses.
inline const Bytes kSuccess = {0x02, 4, 0, 0, 0, 0, 0};
inline Bytes refusal(uint8_t error) {
  return {0x02, 4, 0, 1, 0, error, 0};
}
inline Bytes drx_response(uint8_t value) {
  return join({kSuccess, {0x10, 4, 0, value, 0, 0, 0}});
}

inline UniqueFd listen_on(const std::string& name, int backlog) {
  const auto address = unix_address(name);
  ::unlink(name.c_str());  // a file that a killed test left
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(::bind(listener.get(), address->get(), address->length) + ::listen(listener.get(), backlog), 0) << name;
  return listener;
}

struct ScriptedRequest {
  int connection;
  uint8_t service;
  uint8_t client;
  uint16_t transaction;
  uint16_t id;
  Bytes tlvs;
};

// Its connections are numbered from 0.
class ScriptedModem {
 public:
  using ClientIds = std::set<std::pair<uint8_t, uint8_t>>;  // service and id
  // Runs before the response to a CTL request is sent. It may change the TLVs, or return false to send no response.
  using ControlHook = std::function<bool(int connection, uint16_t id, Bytes& tlvs)>;
  static constexpr uint16_t kGetVersionInfo = 0x0021, kAllocate = 0x0022, kRelease = 0x0023;

  explicit ScriptedModem(std::set<uint8_t> offered) : services(std::move(offered)) {
    ::setenv("PELMAR_MODEM", path_.c_str(), 1);
    std::filesystem::remove_all(path_ + ".state");  // of an earlier process that ended by a signal
    ::setenv("XDG_STATE_HOME", (path_ + ".state").c_str(), 1);
    accepting_ = std::async(std::launch::async, [this] { accept_peers(); });
  }
  ~ScriptedModem() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    accepting_.wait();
    ::unlink(path_.c_str());
    std::filesystem::remove_all(path_ + ".state");
    for (const Peer& peer : peers_) ::shutdown(peer.socket.get(), SHUT_RDWR);
    for (const Peer& peer : peers_) peer.serving.wait();
  }

  // What the test may change at any time.
  SharedValue<std::set<uint8_t>> services;
  SharedValue<ControlHook> on_control;
  SharedValue<ClientIds> client_ids;  // only a client's release or the test frees them
  std::atomic<size_t> client_id_limit{10};
  std::mutex reading;  // while a test holds it, the modem reads no further

  SharedValue<std::deque<ScriptedRequest>> requests;  // to services, not yet received by the test

  // Returns the next request. If none arrives within a minute, the test fails.
  ScriptedRequest receive() {
    if (!requests.wait_until([](const auto& queue) { return !queue.empty(); })) throw std::runtime_error("no request");
    return requests.change([](auto& queue) {
      ScriptedRequest request = std::move(queue.front());
      queue.pop_front();
      return request;
    });
  }

  void respond(const ScriptedRequest& to, const Bytes& tlvs = kSuccess) {
    send(to.connection, frame(to.service, to.client, message(0x02, to.transaction, to.id, tlvs)));
  }
  void indicate(int connection, uint8_t service, uint8_t client, uint16_t id, const Bytes& tlvs = {}) {
    send(connection, frame(service, client, message(0x04, 0, id, tlvs)));
  }
  void revoke(int connection, uint8_t service, uint8_t client) {
    send_control(connection, 0, 2, 0, 0x0024, {0x01, 2, 0, service, client});
  }
  void announce_restart(int connection) { send_control(connection, 0xFF, 2, 0, 0x0027, {}); }
  void send(int connection, const Bytes& bytes) {
    const int socket = peer(connection).socket.get();
    for (size_t sent = 0; sent < bytes.size();) {
      const ssize_t count = ::send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) return;
      sent += static_cast<size_t>(count);
    }
  }
  void close(int connection) { ::shutdown(peer(connection).socket.get(), SHUT_RDWR); }
  // Waits up to a minute until the client closes it.
  bool wait_for_close(int connection) {
    return peer(connection).serving.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  }

 private:
  struct Peer {
    UniqueFd socket;
    std::future<void> serving;
  };

  Peer& peer(int connection) {
    const std::lock_guard lock(peers_mutex_);
    return *std::next(peers_.begin(), connection);
  }

  void accept_peers() {
    for (int connection = 0;; ++connection) {
      UniqueFd socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!socket) return;
      const std::lock_guard lock(peers_mutex_);
      Peer& peer = peers_.emplace_back();
      peer.socket = std::move(socket);
      peer.serving = std::async(std::launch::async, [=, this, fd = peer.socket.get()] { serve(connection, fd); });
    }
  }

  void serve(int connection, int socket) {
    // False if the connection ends before.
    const auto read = [=](Bytes& bytes) {
      return ::recv(socket, bytes.data(), bytes.size(), MSG_WAITALL) == static_cast<ssize_t>(bytes.size());
    };
    uint8_t last_transaction = 0;  // of CTL
    for (Bytes header(6); read(header);) {
      Bytes message(u16_at(header, 1) - 5u);
      if (!read(message)) return;
      { const std::lock_guard may_read(reading); }
      if (header[4] == 0) {
        EXPECT_TRUE(message[1] != 0 && message[1] != std::exchange(last_transaction, message[1]));
        handle_control(connection, message);
        continue;
      }
      EXPECT_EQ(u16_at(message, 5), message.size() - 7);
      requests.change([&](auto& queue) {
        queue.push_back({connection, header[4], header[5], u16_at(message, 1), u16_at(message, 3),
                         Bytes(message.begin() + 7, message.end())});
      });
    }
  }

  void send_control(int connection, uint8_t client, uint8_t flags, uint8_t transaction, uint16_t id,
                    const Bytes& tlvs) {
    send(connection, frame(0, client, join({{flags, transaction}, u16(id), u16(tlvs.size()), tlvs})));
  }

  void handle_control(int connection, const Bytes& request) {
    const uint16_t id = u16_at(request, 2);
    Bytes value;
    bool is_refused = false;
    if (id == kGetVersionInfo) {
      const auto offered = services.get();
      value = {static_cast<uint8_t>(offered.size())};
      for (const uint8_t service : offered) value.insert(value.end(), {service, 1, 0, 0, 0});
    } else if (id == kAllocate) {
      value = {request[9], ++last_client_id_};
      is_refused = client_ids.change([&](ClientIds& ids) {
        return ids.size() >= client_id_limit || !ids.insert({value[0], value[1]}).second;
      });
    } else if (id == kRelease) {
      value = {request[9], request[10]};
      client_ids.change([&](ClientIds& ids) { ids.erase({value[0], value[1]}); });
    }
    Bytes tlvs = is_refused ? refusal(5) : join({kSuccess, {0x01}, u16(value.size()), value});
    const ControlHook hook = on_control.get();
    if (!hook || hook(connection, id, tlvs)) send_control(connection, 0, 1, request[1], id, tlvs);
  }

  const std::string path_ = "/tmp/scripted-modem-" + std::to_string(::getpid());
  const UniqueFd listener_ = listen_on(path_, 64);
  std::atomic<uint8_t> last_client_id_{0};
  std::mutex peers_mutex_;
  std::list<Peer> peers_;
  std::future<void> accepting_;
};

}  // namespace pelmar::platform
