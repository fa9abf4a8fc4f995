#include "socket_stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "unix_socket.h"

namespace pelmar::platform {
namespace {

// The longest wait of one recv(). The kernel ends such a wait late by up to an eighth of its length, which is seconds
// for a long one: after a short wait a poll, which is exact, waits for the rest.
constexpr Deadline::Milliseconds kSocketTimeout{100};

bool set_receive_timeout(int descriptor) {
  const timeval timeout = {0, static_cast<suseconds_t>(std::chrono::microseconds(kSocketTimeout).count())};
  return ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0;
}

void report(const std::string& name, const std::string& problem) {
  report_problem("Cannot connect to " + name + ": " + problem);
}

}  // namespace

Problem SocketStream::connect(const std::string& name, const Deadline& deadline) {
  descriptor_ = ProcessFd([] { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); });
  if (!is_open()) return {std::strerror(errno)};
  silent_listener_ = name;
  ConnectResult result =
      deadline.is_none() ? connect_unix(descriptor(), name) : connect_unix(descriptor(), name, deadline.remaining());
  if (result.error == 0 && set_receive_timeout(descriptor())) return {};
  const bool is_absent = result.error == ENOENT || result.error == ECONNREFUSED;
  if (result.error == EACCES) {
    result.problem = "this user may not connect to it: run as the user that owns it, or as root (ls -l " + name + ")";
  }
  if (!is_absent && !result.problem.empty()) report(name, result.problem);
  close();
  return {is_absent ? "no process listens on it (" + result.problem + ")" : result.problem, is_absent};
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
      report_refusal();
      return SendStatus::kGone;
    }
  }
  return SendStatus::kSent;
}

SendStatus SocketStream::flush(const Deadline& deadline) {
  while (!unsent_.empty()) {
    const auto rest = std::exchange(unsent_, {});
    const SendStatus status = send(rest.data(), rest.size());
    if (status != SendStatus::kBlocked) return status;
    if (!wait(POLLOUT, deadline)) return SendStatus::kTimedOut;
  }
  return SendStatus::kSent;
}

ReadStatus SocketStream::receive(uint8_t* to, size_t room, const Deadline& deadline, size_t& received) {
  for (;;) {
    // A blocking recv() costs one system call for the usual response; with a poll before it there are two.
    const bool blocks = deadline.is_none() || deadline.remaining() >= 2 * kSocketTimeout;
    const ssize_t count = ::recv(descriptor(), to, room, blocks ? 0 : MSG_DONTWAIT);
    if (count > 0) {
      // Cleared at the first bytes only: until then one thread uses the stream, later a sending thread may read it.
      if (!silent_listener_.empty()) silent_listener_.clear();
      received = static_cast<size_t>(count);
      return ReadStatus::kRead;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      report_refusal();
      return ReadStatus::kGone;
    }
    // A process that was stopped gets EINTR: bytes may have arrived although the deadline has passed.
    if (errno == EAGAIN && !wait(POLLIN, deadline)) return ReadStatus::kTimedOut;
  }
}

// Returns false if the deadline has passed. Otherwise waits and returns true: the caller tries again.
bool SocketStream::wait(short events, const Deadline& deadline) {
  if (deadline.has_passed()) return false;
  pollfd poll_for = {descriptor(), events, 0};
  const timespec time = deadline.remaining_time();
  ::ppoll(&poll_for, 1, deadline.is_none() ? nullptr : &time, nullptr);
  return true;
}

void SocketStream::report_refusal() {
  if (const std::string problem = describe_refusal(); !problem.empty()) report(silent_listener_, problem);
}

std::string SocketStream::describe_refusal() const {
  if (silent_listener_.empty()) return "";
  const std::string problem = pelmar::describe_refusal(descriptor(), silent_listener_);
  return problem.empty() ? "" : problem + ", or start the simulated modem with --any-user";
}

void SocketStream::stop_receiving() {
  ::shutdown(descriptor(), SHUT_RD);
}

void SocketStream::shut_down() {
  ::shutdown(descriptor(), SHUT_RDWR);
}

void SocketStream::close() {
  descriptor_.reset();
  unsent_.clear();
}

}  // namespace pelmar::platform
