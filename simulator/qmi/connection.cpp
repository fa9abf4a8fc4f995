#include "qmi/connection.h"

#include <utility>

#include "qmi/exchange.h"
#include "unix_socket.h"

namespace pelmar::sim {

void Connection::received(const qmi::Frame& frame) {
  connections_.exchange_.on_frame(*this, frame);
}

void Connection::drained() {
  const EventLoop::Task task = std::exchange(when_drained_, nullptr);
  if (task) task();
}

void Connection::closed(std::string_view reason) {
  connections_.exchange_.on_closed(*this, reason);
  connections_.remove(*this);
}

QmuxConnection::QmuxConnection(Connections& connections, uint64_t number, UniqueFd fd)
    : Connection(connections, number, peer_of(fd.get()).pid),
      stream_(connections.loop_, connections.output_, std::move(fd), *this, {qmi::kMaxFrameLength, kMaxWaitingBytes}) {}

size_t QmuxConnection::on_bytes(std::span<const uint8_t> bytes) {
  size_t used = 0;
  while (stream_.is_open()) {
    const qmi::Front front = qmi::read_front(bytes.subspan(used), qmi::Direction::kToModem);
    if (front.state == qmi::Front::State::kIncomplete) break;
    if (front.state == qmi::Front::State::kBroken) {
      close(front.problem);
      break;
    }
    received(front.frame);
    used += front.length;
  }
  return used;
}

Connections::Connections(EventLoop& loop, WaitingOutput& output, const std::string& socket, Admission admission,
                         Exchange& exchange, std::optional<EventLoop::Clock::duration> idle_limit)
    : loop_(loop),
      output_(output),
      exchange_(exchange),
      idle_limit_(idle_limit),
      listener_(
          loop, socket, [this](UniqueFd fd) { add<QmuxConnection>(std::move(fd)); }, admission) {
  wait_for_clients();
}

bool Connections::drop_youngest(std::string_view reason) {
  if (open_.empty()) return false;
  open_.rbegin()->second->close(reason);
  return true;
}

void Connections::remove(Connection& connection) {
  loop_.post([last_reference = connection.shared_from_this()] {});
  open_.erase(connection.number());
  if (open_.empty()) wait_for_clients();
}

void Connections::wait_for_clients() {
  if (idle_limit_) idle_timer_ = loop_.after(*idle_limit_, [this] { loop_.stop(); });
}

}  // namespace pelmar::sim
