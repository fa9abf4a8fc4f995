#include "qmi/connection.h"

#include <algorithm>
#include <utility>

#include "environment.h"
#include "qmi/exchange.h"
#include "unix_socket.h"

namespace pelmar::sim {

void Connection::trace(qmi::Direction direction, const qmi::Frame& frame) {
  const std::optional<uint8_t> client = traced_client(frame);
  if (!client) return;
  qmi::CaptureWriter& writer = *connections_.trace_;
  if (!trace_link_) {
    trace_link_ = writer.add_link({address(), describe_process(process_)}, qmi::CaptureWriter::Sharing::kOwn);
  }
  writer.write(*trace_link_, direction, frame.service, *client, frame.message);
}

// The bytes of a fault are traced only if they are a frame.
void Connection::send(std::span<const uint8_t> bytes) {
  if (connections_.trace_ != nullptr) {
    const qmi::Front front = qmi::read_front(bytes, qmi::Direction::kFromModem);
    if (front.state == qmi::Front::State::kComplete) trace(qmi::Direction::kFromModem, front.frame);
  }
  transmit(bytes);
}

void Connection::received(const qmi::Frame& frame) {
  if (connections_.trace_ != nullptr) trace(qmi::Direction::kToModem, frame);
  connections_.exchange_.on_frame(*this, frame);
}

void Connection::drained() {
  for (const EventLoop::Task& task : std::exchange(when_drained_, {})) task();
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

std::string QmuxConnection::address() const {
  return connections_.socket_;
}

Connections::Connections(EventLoop& loop, WaitingOutput& output, const std::string& socket, Admission admission,
                         Exchange& exchange, std::optional<EventLoop::Clock::duration> idle_limit)
    : loop_(loop),
      output_(output),
      socket_(socket),
      exchange_(exchange),
      idle_limit_(idle_limit),
      listener_(
          loop, socket, [this](UniqueFd fd) { add<QmuxConnection>(std::move(fd)); }, admission) {
  peers_changed();
}

bool Connections::drop_youngest(std::string_view reason) {
  if (open_.empty()) return false;
  open_.rbegin()->second->close(reason);
  return true;
}

void Connections::remove(Connection& connection) {
  loop_.post([last_reference = connection.shared_from_this()] {});
  open_.erase(connection.number());
  peers_changed();
}

void Connections::peers_changed() {
  if (!idle_limit_) return;
  loop_.cancel(idle_timer_);
  if (std::any_of(open_.begin(), open_.end(), [](const auto& each) { return each.second->has_peer(); })) return;
  idle_timer_ = loop_.after(*idle_limit_, [this] { loop_.stop(); });
}

}  // namespace pelmar::sim
