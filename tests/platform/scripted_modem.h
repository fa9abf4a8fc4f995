// A modem behind a QMUX proxy, played by the test: it answers the CTL service by itself and leaves the requests of all
// other services to the test, one by one. While it lives PELMAR_QMI_SOCKET names its socket.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace pelmar::platform {

using Bytes = std::vector<uint8_t>;

struct ScriptedRequest {
  int connection;  // number of the connection that it came by, from 0
  uint8_t service;
  uint8_t client;
  uint16_t transaction;
  uint16_t id;
  Bytes tlvs;
};

class ScriptedModem {
 public:
  explicit ScriptedModem(std::set<uint8_t> services);
  ~ScriptedModem();

  // What the test may change at any time.
  struct Behaviour {
    std::set<uint8_t> services;
    size_t client_id_limit = 10;
    std::optional<uint8_t> void_client_id;  // is given out, and not counted
    bool confirms_releases = true;
    std::chrono::milliseconds control_delay{0};  // before every response of the CTL service
    bool reads = true;
    std::function<void(int connection, uint8_t client)> before_next_id;  // is answered
    std::function<void(int connection)> before_next_release;             // is confirmed
    bool echoes = false;  // every request has an indication of its number and a successful response at once
  };

  template <typename T>
  void set(T Behaviour::*field, T value) {
    const std::lock_guard lock(mutex_);
    behaviour_.*field = std::move(value);
    changed_.notify_all();
  }
  void offer(std::set<uint8_t> services) { set(&Behaviour::services, std::move(services)); }

  // The next request of a service; nothing within a minute is an error of the test.
  ScriptedRequest receive();
  size_t request_count();

  void respond(const ScriptedRequest& request, const Bytes& tlvs = kSuccess);
  void indicate(int connection, uint8_t service, uint8_t client, uint16_t id, const Bytes& tlvs);
  void revoke(int connection, uint8_t service, uint8_t client);
  void announce_restart(int connection);
  void close_connection(int connection);
  void send_raw(int connection, const Bytes& bytes);

  // Service and id of all that are allocated; nothing frees them but a client's release, or the test.
  std::set<std::pair<uint8_t, uint8_t>> client_ids();
  bool comes_to_hold_no_ids();  // within a minute: a release does not wait for a slow modem
  void void_client_ids();
  void take_client_id(uint8_t service, uint8_t client);  // for another program
  bool is_connected(int connection);                     // still, after a minute

  static Bytes frame(uint8_t service, uint8_t client, const Bytes& message);
  static Bytes message(uint8_t flags, uint16_t transaction, uint16_t id, const Bytes& tlvs);
  static Bytes drx_response(uint32_t value);
  static Bytes refusal(uint8_t error);

  static const Bytes kSuccess;

 private:
  struct Peer {
    int socket;
    std::thread thread;
    std::mutex sending;
    bool is_open = true;
  };

  void accept_peers();
  void serve(int connection, Peer& peer);
  void handle_control(int connection, const Bytes& message);
  Peer& peer(int connection);

  std::string path_;
  int listener_;
  std::thread acceptor_;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::list<Peer> peers_;
  Behaviour behaviour_;
  std::set<std::pair<uint8_t, uint8_t>> client_ids_;
  std::deque<ScriptedRequest> requests_;
  uint8_t last_client_id_ = 0;
};

}  // namespace pelmar::platform
