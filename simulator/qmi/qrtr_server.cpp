#include "qmi/qrtr_server.h"

#include <endian.h>
#include <linux/qrtr.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

namespace pelmar::sim {

namespace {

constexpr uint32_t kInstance = 1;

// A client's socket that is full is tried again after this time: the kernel does not report that there is room again.
constexpr std::chrono::milliseconds kSendPause{1};

// The kernel sends no longer datagrams.
constexpr size_t kMaxDatagram = UINT16_MAX;

bool is_temporary(int error) {
  return error == EAGAIN || error == EINTR || error == ENOBUFS || error == ENOMEM || error == ENOSPC;
}

// Returns 0, or errno's value.
int send_datagram(const UniqueFd& fd, const sockaddr_qrtr& to, std::span<const uint8_t> bytes) {
  const ssize_t sent =
      sendto(fd.get(), bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  return sent < 0 ? errno : 0;
}

}  // namespace

class QrtrClient;

// The socket of one service. There is none while the service does not run.
class QrtrService final : public EventLoop::Watcher {
 public:
  QrtrService(EventLoop& loop, Modem::Slot& slot, Connections& connections)
      : loop_(loop), slot_(slot), connections_(connections) {}
  ~QrtrService() override;

  EventLoop& loop() { return loop_; }
  Modem::Slot& slot() { return slot_; }
  uint32_t node() const { return node_; }

  void publish();  // throws std::runtime_error
  void publish_or_report();
  void withdraw();
  // Withdraws and publishes in a later round of the loop.
  void restart();

  // Returns 0, or errno's value.
  int send(const sockaddr_qrtr& client, std::span<const uint8_t> message) {
    return send_datagram(fd_, client, message);
  }

  void on_ready(uint32_t events) override;

 private:
  using Address = std::pair<uint32_t, uint32_t>;  // node and port

  void on_request(const sockaddr_qrtr& from, std::span<const uint8_t> message);
  void on_control(std::span<const uint8_t> packet);
  void remove_clients(uint32_t node, uint32_t first_port, uint32_t last_port);

  EventLoop& loop_;
  Modem::Slot& slot_;
  Connections& connections_;
  UniqueFd fd_;
  uint32_t node_ = 0;                                       // this machine's
  uint64_t generation_ = 0;                                 // of the socket
  std::map<Address, std::shared_ptr<QrtrClient>> clients_;  // null: its allocation failed
  std::array<uint8_t, kMaxDatagram> datagram_{};
};

// A client of one service. Messages that its socket has no room for wait up to a limit; further ones are dropped.
class QrtrClient final : public Connection {
 public:
  QrtrClient(Connections& connections, uint64_t number, QrtrService& service, const sockaddr_qrtr& address)
      : Connection(connections, number, 0), service_(service), address_(address) {}

  // If all client ids are in use, the request is refused like one with a void id.
  void on_request(std::span<const uint8_t> message) {
    auto& ids = service_.slot().clients;
    if (client_ == qmi::kNoClient) client_ = ids.allocate(*this).value_or(qmi::kNoClient);
    received({service_.slot().service->id(), client_, message});
  }

  void close(std::string_view /*reason*/) override { service_.restart(); }

  bool is_drained() const override { return waiting_.empty(); }

  // The client's socket or the service's has closed. No other function is called after this.
  void end() {
    has_ended_ = true;
    waiting_.clear();
    closed(Stream::kClosedByPeer);
  }

 private:
  // Sends the frame's message without the header. A frame of another service is dropped.
  void transmit(std::span<const uint8_t> bytes) override {
    constexpr size_t kServiceAt = 4;
    if (bytes.size() >= qmi::kFrameHeaderLength && bytes[0] == 0x01) {
      if (bytes[kServiceAt] != service_.slot().service->id()) return;
      bytes = bytes.subspan(qmi::kFrameHeaderLength);
    }
    if (has_ended_ || waiting_bytes_ + bytes.size() > kMaxWaitingBytes) return;
    if (waiting_.empty() && !is_temporary(service_.send(address_, bytes))) return;
    if (waiting_.empty()) try_again_later();
    waiting_.emplace_back(bytes.begin(), bytes.end());
    waiting_bytes_ += bytes.size();
  }

  std::string address() const override { return "qrtr:" + std::to_string(service_.node()); }
  std::optional<uint8_t> traced_client(const qmi::Frame& frame) const override {
    if (frame.service != service_.slot().service->id()) return std::nullopt;
    return static_cast<uint8_t>(address_.sq_port);
  }

  void try_again_later() {
    service_.loop().after(kSendPause, [weak = weak_from_this(), this] {
      if (const auto alive = weak.lock()) flush();
    });
  }

  void flush() {
    if (has_ended_) return;
    while (!waiting_.empty() && !is_temporary(service_.send(address_, waiting_.front()))) {
      waiting_bytes_ -= waiting_.front().size();
      waiting_.pop_front();
    }
    if (!waiting_.empty()) return try_again_later();
    drained();
  }

  QrtrService& service_;
  const sockaddr_qrtr address_;
  uint8_t client_ = qmi::kNoClient;
  bool has_ended_ = false;
  std::deque<std::vector<uint8_t>> waiting_;
  size_t waiting_bytes_ = 0;
};

QrtrService::~QrtrService() {
  withdraw();
}

void QrtrService::publish() {
  if (fd_) return;
  UniqueFd fd(socket(AF_QIPCRTR, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_qrtr address{};
  socklen_t length = sizeof address;
  if (!fd || getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error(errno == EAFNOSUPPORT ? "this kernel has no QRTR: modprobe qrtr"
                                                   : std::string("cannot create a QRTR socket: ") + strerror(errno));
  }
  qrtr_ctrl_pkt packet{};
  packet.cmd = htole32(QRTR_TYPE_NEW_SERVER);
  packet.server.service = htole32(slot_.service->id());
  packet.server.instance = htole32(kInstance << 8 | (slot_.service->major_version() & 0xFF));
  packet.server.node = htole32(address.sq_node);
  address.sq_port = QRTR_PORT_CTRL;  // the name service takes the service's port from the packet's sender
  if (const int error = send_datagram(fd, address, {reinterpret_cast<const uint8_t*>(&packet), sizeof packet})) {
    throw std::runtime_error(std::string("cannot publish a QRTR service: ") + strerror(error));
  }
  loop_.watch(fd.get(), EPOLLIN, *this);
  node_ = address.sq_node;
  fd_ = std::move(fd);
  ++generation_;
}

// A service that cannot be published stays away until the modem's next change.
void QrtrService::publish_or_report() {
  try {
    publish();
  } catch (const std::runtime_error& error) {
    fprintf(stderr, "modem_sim: %s\n", error.what());
  }
}

void QrtrService::withdraw() {
  if (!fd_) return;
  loop_.unwatch(fd_.get(), *this);
  fd_.reset();
  for (const auto& [address, client] : std::exchange(clients_, {})) {
    if (client) client->end();
  }
}

void QrtrService::restart() {
  loop_.post([this, generation = generation_] {
    if (!fd_ || generation != generation_) return;
    withdraw();
    publish_or_report();
  });
}

// Reads once for each wake-up, so that a client that sends without pause does not delay the others.
void QrtrService::on_ready(uint32_t) {
  sockaddr_qrtr from{};
  socklen_t length = sizeof from;
  const ssize_t count = recvfrom(fd_.get(), datagram_.data(), datagram_.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr*>(&from), &length);
  if (count < 0) {
    if (!is_temporary(errno)) restart();
    return;
  }
  const std::span<const uint8_t> bytes(datagram_.data(), static_cast<size_t>(count));
  if (from.sq_port == QRTR_PORT_CTRL) {
    if (from.sq_node == node_) on_control(bytes);  // this machine's name service reports the clients of all nodes
    return;
  }
  on_request(from, bytes);
}

void QrtrService::on_request(const sockaddr_qrtr& from, std::span<const uint8_t> message) {
  std::shared_ptr<QrtrClient>& client = clients_[{from.sq_node, from.sq_port}];
  if (!client) client = connections_.add<QrtrClient>(*this, from);
  const std::shared_ptr<QrtrClient> in_use = client;
  in_use->on_request(message);
}

void QrtrService::on_control(std::span<const uint8_t> bytes) {
  qrtr_ctrl_pkt packet{};
  memcpy(&packet, bytes.data(), std::min(bytes.size(), sizeof packet));
  const uint32_t node = le32toh(packet.client.node);
  const uint32_t port = le32toh(packet.client.port);
  if (packet.cmd == htole32(QRTR_TYPE_DEL_CLIENT)) remove_clients(node, port, port);
  if (packet.cmd == htole32(QRTR_TYPE_BYE)) remove_clients(node, 0, UINT32_MAX);
}

void QrtrService::remove_clients(uint32_t node, uint32_t first_port, uint32_t last_port) {
  auto next = clients_.lower_bound({node, first_port});
  while (next != clients_.end() && next->first <= Address{node, last_port}) {
    const std::shared_ptr<QrtrClient> client = next->second;
    next = clients_.erase(next);
    if (client) client->end();
  }
}

QrtrServer::QrtrServer(EventLoop& loop, Modem& modem, Connections& connections) : modem_(modem) {
  for (Modem::Slot& slot : modem.slots()) services_.push_back(std::make_unique<QrtrService>(loop, slot, connections));
  for (const auto& service : services_) {
    if (is_running(*service)) service->publish();
  }
  modem.when_changed([this] { update(); });
}

QrtrServer::~QrtrServer() {
  modem_.when_changed([] {});
}

bool QrtrServer::is_running(QrtrService& service) const {
  return modem_.find_running(service.slot().service->id()) != nullptr;
}

void QrtrServer::update() {
  for (const auto& service : services_) {
    if (is_running(*service)) {
      service->publish_or_report();
    } else {
      service->withdraw();
    }
  }
}

}  // namespace pelmar::sim
