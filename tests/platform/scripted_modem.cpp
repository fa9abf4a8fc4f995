#include "scripted_modem.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <stdexcept>

namespace pelmar::platform {
namespace {

constexpr auto kPatience = std::chrono::seconds(60);

bool read_whole(int socket, uint8_t* to, size_t length) {
  while (length > 0) {
    const ssize_t count = ::recv(socket, to, length, 0);
    if (count <= 0) return false;
    to += count;
    length -= static_cast<size_t>(count);
  }
  return true;
}

uint16_t u16(const Bytes& bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

void append_u16(Bytes& bytes, size_t value) {
  bytes.push_back(static_cast<uint8_t>(value));
  bytes.push_back(static_cast<uint8_t>(value >> 8));
}

Bytes control_message(uint8_t flags, uint8_t transaction, uint16_t id, const Bytes& tlvs) {
  Bytes bytes = {flags, transaction};
  append_u16(bytes, id);
  append_u16(bytes, tlvs.size());
  bytes.insert(bytes.end(), tlvs.begin(), tlvs.end());
  return bytes;
}

}  // namespace

const Bytes ScriptedModem::kSuccess = {0x02, 4, 0, 0, 0, 0, 0};

ScriptedModem::ScriptedModem(std::set<uint8_t> services) : path_("/tmp/scripted-modem-" + std::to_string(::getpid())) {
  behaviour_.services = std::move(services);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path_.data(), path_.size());
  ::unlink(path_.c_str());
  listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener_, 64) != 0) {
    throw std::runtime_error("no socket for the scripted modem");
  }
  ::setenv("PELMAR_QMI_SOCKET", path_.c_str(), 1);
  acceptor_ = std::thread([this] { accept_peers(); });
}

ScriptedModem::~ScriptedModem() {
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  ::close(listener_);
  ::unlink(path_.c_str());
  set(&Behaviour::reads, true);
  for (Peer& peer : peers_) {
    ::shutdown(peer.socket, SHUT_RDWR);
    peer.thread.join();
    ::close(peer.socket);
  }
}

void ScriptedModem::accept_peers() {
  for (int connection = 0;; ++connection) {
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) return;
    const std::lock_guard lock(mutex_);
    Peer& peer = peers_.emplace_back();
    peer.socket = socket;
    peer.thread = std::thread([this, connection, &peer] { serve(connection, peer); });
  }
}

void ScriptedModem::serve(int connection, Peer& peer) {
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return behaviour_.reads; });
    }
    Bytes header(6);
    if (!read_whole(peer.socket, header.data(), header.size())) break;
    Bytes message(u16(header, 1) - 5u);
    if (!read_whole(peer.socket, message.data(), message.size())) break;
    if (header[4] == 0) {
      handle_control(connection, message);
      continue;
    }
    const ScriptedRequest request = {connection,      header[4],       header[5],
                                     u16(message, 1), u16(message, 3), Bytes(message.begin() + 7, message.end())};
    std::unique_lock lock(mutex_);
    if (!behaviour_.echoes) {
      requests_.push_back(request);
      changed_.notify_all();
      continue;
    }
    lock.unlock();
    indicate(connection, request.service, request.client, request.id, request.tlvs);
    respond(request, drx_response(request.tlvs.empty() ? 0 : request.tlvs.back()));
  }
  const std::lock_guard lock(mutex_);
  peer.is_open = false;
  changed_.notify_all();
}

void ScriptedModem::handle_control(int connection, const Bytes& message) {
  Bytes answer = kSuccess;
  std::function<void()> before_answer;
  std::chrono::milliseconds delay{0};
  {
    const std::lock_guard lock(mutex_);
    delay = behaviour_.control_delay;
    switch (u16(message, 2)) {
      case 0x0021:
        answer.push_back(0x01);
        append_u16(answer, 1 + 5 * behaviour_.services.size());
        answer.push_back(static_cast<uint8_t>(behaviour_.services.size()));
        for (const uint8_t service : behaviour_.services) answer.insert(answer.end(), {service, 1, 0, 0, 0});
        break;
      case 0x0022:
        if (behaviour_.void_client_id) {
          answer.insert(answer.end(), {0x01, 2, 0, message[9], *behaviour_.void_client_id});
        } else if (client_ids_.size() >= behaviour_.client_id_limit) {
          answer = refusal(5);
        } else {
          client_ids_.insert({message[9], ++last_client_id_});
          answer.insert(answer.end(), {0x01, 2, 0, message[9], last_client_id_});
          if (const auto before = std::exchange(behaviour_.before_next_id, nullptr)) {
            before_answer = [=, client = last_client_id_] { before(connection, client); };
          }
        }
        break;
      case 0x0023:
        client_ids_.erase({message[9], message[10]});
        if (const auto before = std::exchange(behaviour_.before_next_release, nullptr)) {
          before_answer = [=] { before(connection); };
        }
        changed_.notify_all();
        if (!behaviour_.confirms_releases) return;
        answer.insert(answer.end(), {0x01, 2, 0, message[9], message[10]});
        break;
      default:
        break;
    }
  }
  if (before_answer) before_answer();
  std::this_thread::sleep_for(delay);
  send_raw(connection, frame(0, 0, control_message(1, message[1], u16(message, 2), answer)));
}

ScriptedRequest ScriptedModem::receive() {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, kPatience, [this] { return !requests_.empty(); })) {
    throw std::runtime_error("no request came");
  }
  ScriptedRequest request = std::move(requests_.front());
  requests_.pop_front();
  return request;
}

size_t ScriptedModem::request_count() {
  const std::lock_guard lock(mutex_);
  return requests_.size();
}

void ScriptedModem::respond(const ScriptedRequest& request, const Bytes& tlvs) {
  send_raw(request.connection,
           frame(request.service, request.client, message(0x02, request.transaction, request.id, tlvs)));
}

void ScriptedModem::indicate(int connection, uint8_t service, uint8_t client, uint16_t id, const Bytes& tlvs) {
  send_raw(connection, frame(service, client, message(0x04, 0, id, tlvs)));
}

void ScriptedModem::revoke(int connection, uint8_t service, uint8_t client) {
  send_raw(connection, frame(0, 0, control_message(2, 0, 0x0024, {0x01, 2, 0, service, client})));
}

void ScriptedModem::announce_restart(int connection) {
  send_raw(connection, frame(0, 0xFF, control_message(2, 0, 0x0027, {})));
}

void ScriptedModem::close_connection(int connection) {
  ::shutdown(peer(connection).socket, SHUT_RDWR);
}

void ScriptedModem::send_raw(int connection, const Bytes& bytes) {
  Peer& to = peer(connection);
  const std::lock_guard lock(to.sending);
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = ::send(to.socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return;
    sent += static_cast<size_t>(count);
  }
}

std::set<std::pair<uint8_t, uint8_t>> ScriptedModem::client_ids() {
  const std::lock_guard lock(mutex_);
  return client_ids_;
}

bool ScriptedModem::comes_to_hold_no_ids() {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, kPatience, [this] { return client_ids_.empty(); });
}

void ScriptedModem::void_client_ids() {
  const std::lock_guard lock(mutex_);
  client_ids_.clear();
}

void ScriptedModem::take_client_id(uint8_t service, uint8_t client) {
  const std::lock_guard lock(mutex_);
  client_ids_.insert({service, client});
}

bool ScriptedModem::is_connected(int connection) {
  Peer& of = peer(connection);
  std::unique_lock lock(mutex_);
  return !changed_.wait_for(lock, kPatience, [&] { return !of.is_open; });
}

ScriptedModem::Peer& ScriptedModem::peer(int connection) {
  const std::lock_guard lock(mutex_);
  return *std::next(peers_.begin(), connection);
}

Bytes ScriptedModem::frame(uint8_t service, uint8_t client, const Bytes& message) {
  Bytes bytes = {0x01};
  append_u16(bytes, 5 + message.size());
  bytes.insert(bytes.end(), {0x80, service, client});
  bytes.insert(bytes.end(), message.begin(), message.end());
  return bytes;
}

Bytes ScriptedModem::message(uint8_t flags, uint16_t transaction, uint16_t id, const Bytes& tlvs) {
  Bytes bytes = {flags};
  append_u16(bytes, transaction);
  append_u16(bytes, id);
  append_u16(bytes, tlvs.size());
  bytes.insert(bytes.end(), tlvs.begin(), tlvs.end());
  return bytes;
}

Bytes ScriptedModem::refusal(uint8_t error) {
  return {0x02, 4, 0, 1, 0, error, 0};
}

Bytes ScriptedModem::drx_response(uint32_t value) {
  Bytes bytes = kSuccess;
  bytes.insert(bytes.end(), {0x10, 4, 0});
  append_u16(bytes, value & 0xFFFF);
  append_u16(bytes, value >> 16);
  return bytes;
}

}  // namespace pelmar::platform
