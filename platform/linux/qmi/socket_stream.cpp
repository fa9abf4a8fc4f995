#include "socket_stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

#include "unix_address.h"

namespace pelmar::platform {
namespace {

// A listener that accepts nobody would hold a caller for ever.
constexpr Deadline::Milliseconds kConnectTimeout{2000};

timeval to_timeval(Deadline::Milliseconds time) {
  return {static_cast<time_t>(time.count() / 1000), static_cast<suseconds_t>(time.count() % 1000 * 1000)};
}

}  // namespace

bool SocketStream::connect(const std::string& name) {
  const auto address = unix_address(name);
  if (!address) return false;
  close();
  descriptor_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!is_open()) return false;
  const timeval timeout = to_timeval(kConnectTimeout);
  ::setsockopt(descriptor(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  if (::connect(descriptor(), address->get(), address->length) == 0) return true;
  close();
  return false;
}

SendStatus SocketStream::send(const uint8_t* bytes, size_t length) {
  while (length > 0) {
    const ssize_t sent = ::send(descriptor(), bytes, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      bytes += sent;
      length -= static_cast<size_t>(sent);
    } else if (errno == EAGAIN) {
      unsent_.assign(bytes, bytes + length);
      return SendStatus::kBlocked;
    } else if (errno != EINTR) {
      return SendStatus::kGone;
    }
  }
  return SendStatus::kSent;
}

SendStatus SocketStream::flush(const Deadline& deadline) {
  while (!unsent_.empty()) {
    const std::vector<uint8_t> rest = std::move(unsent_);
    unsent_.clear();
    const SendStatus status = send(rest.data(), rest.size());
    if (status != SendStatus::kBlocked) return status;
    if (!wait(POLLOUT, deadline)) return SendStatus::kTimedOut;
  }
  return SendStatus::kSent;
}

ReadStatus SocketStream::receive(uint8_t* to, size_t room, const Deadline& deadline, size_t& received) {
  for (;;) {
    const ssize_t count = ::recv(descriptor(), to, room, blocks_for(deadline) ? 0 : MSG_DONTWAIT);
    if (count > 0) {
      received = static_cast<size_t>(count);
      return ReadStatus::kRead;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) return ReadStatus::kGone;
    if (errno == EAGAIN && !wait(POLLIN, deadline)) return ReadStatus::kTimedOut;
  }
}

// A wait that begins now may be left to the socket itself, which remembers its time-out from one receive to the next:
// one system call instead of two for the usual answer. Later waits for the same answer are shorter and poll.
bool SocketStream::blocks_for(const Deadline& deadline) {
  if (!deadline.is_none() && (deadline.total().count() == 0 || deadline.remaining() != deadline.total())) return false;
  if (receive_timeout_ == deadline.total()) return true;
  const timeval timeout = to_timeval(deadline.total());
  if (::setsockopt(descriptor(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) return false;
  receive_timeout_ = deadline.total();
  return true;
}

bool SocketStream::wait(short events, const Deadline& deadline) {
  if (deadline.has_passed()) return false;
  pollfd poll_for = {descriptor(), events, 0};
  const auto remaining = deadline.remaining().count();
  const timespec time = {static_cast<time_t>(remaining / 1000), static_cast<long>(remaining % 1000 * 1000000)};
  const int ready = ::ppoll(&poll_for, 1, deadline.is_none() ? nullptr : &time, nullptr);
  return ready > 0 || (ready < 0 && errno == EINTR) || !deadline.has_passed();
}

void SocketStream::shut_down() {
  ::shutdown(descriptor(), SHUT_RDWR);
}

void SocketStream::close() {
  descriptor_.reset();
  unsent_.clear();
  receive_timeout_ = Deadline::Milliseconds(0);
}

}  // namespace pelmar::platform
