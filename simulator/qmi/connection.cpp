#include "qmi/connection.h"

#include <utility>

#include "qmi/exchange.h"

namespace pelmar::sim {

Connection::Connection(Connections& connections, UniqueFd fd, uint64_t number)
    : connections_(connections),
      number_(number),
      stream_(connections.loop_, connections.output_, std::move(fd), *this, {qmi::kMaxFrameLength, kMaxWaitingBytes}),
      process_(stream_.process_at_other_end()) {}

size_t Connection::on_bytes(std::span<const uint8_t> bytes) {
  size_t used = 0;
  while (stream_.is_open()) {
    const qmi::Front front = qmi::read_front(bytes.subspan(used), qmi::Direction::kToModem);
    if (front.state == qmi::Front::State::kIncomplete) break;
    if (front.state == qmi::Front::State::kBroken) {
      close(front.problem);
      break;
    }
    connections_.exchange_.on_frame(*this, front.frame);
    used += front.length;
  }
  return used;
}

void Connection::on_drained() {
  const EventLoop::Task task = std::exchange(when_drained_, nullptr);
  if (task) task();
}

void Connection::on_closed(std::string_view reason) {
  connections_.exchange_.on_closed(*this, reason);
  connections_.remove(*this);
}

Connections::Connections(EventLoop& loop, WaitingOutput& output, const std::string& socket, Admission admission,
                         Exchange& exchange, std::optional<EventLoop::Clock::duration> idle_limit)
    : loop_(loop),
      output_(output),
      exchange_(exchange),
      idle_limit_(idle_limit),
      listener_(
          loop, socket, [this](UniqueFd fd) { accept(std::move(fd)); }, admission) {
  wait_for_clients();
}

void Connections::accept(UniqueFd fd) {
  const uint64_t number = last_number_ + 1;
  open_.emplace(number, std::make_shared<Connection>(*this, std::move(fd), number));
  last_number_ = number;
  loop_.cancel(idle_timer_);
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
