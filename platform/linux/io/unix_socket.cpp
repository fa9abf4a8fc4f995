#include "unix_socket.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "environment.h"

namespace pelmar {
namespace {

using Clock = std::chrono::steady_clock;

// One call waits this long at most: the kernel ends a wait late by up to an eighth of its length.
constexpr std::chrono::microseconds kStep = std::chrono::milliseconds(100);

void set_send_timeout(int fd, std::chrono::microseconds time) {
  const timeval value = {0, static_cast<suseconds_t>(time.count())};
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value);
}

// While the listener's queue of pending connections is full, connect() waits as long as the send time-out. A signal
// ends that wait, even if its handler has SA_RESTART. Returns errno's value, or 0.
int connect_in_time(int fd, const UnixAddress& address, std::chrono::milliseconds timeout) {
  const Clock::time_point end = Clock::now() + timeout;
  set_send_timeout(fd, kStep);
  while (::connect(fd, address.get(), address.length) != 0) {
    if (errno != EINTR && errno != EAGAIN) return errno;
    if (Clock::now() >= end) return ETIMEDOUT;
  }
  set_send_timeout(fd, {});  // later sends have no time-out
  return 0;
}

std::string describe(const ucred& peer) {
  return "process " + std::to_string(peer.pid) + " of user " + std::to_string(peer.uid);
}

}  // namespace

bool is_abstract(std::string_view name) {
  return name.starts_with('@');
}

size_t longest_unix_name(std::string_view name) {
  return sizeof sockaddr_un::sun_path - (is_abstract(name) ? 0 : 1);
}

std::optional<UnixAddress> unix_address(std::string_view name) {
  if (name.size() < (is_abstract(name) ? 2 : 1) || name.size() > longest_unix_name(name)) return std::nullopt;
  UnixAddress address;
  address.socket.sun_family = AF_UNIX;
  std::copy(name.begin(), name.end(), address.socket.sun_path);
  if (is_abstract(name)) address.socket.sun_path[0] = '\0';
  const size_t terminator = is_abstract(name) ? 0 : 1;
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + terminator);
  return address;
}

ConnectResult connect_unix(int fd, const std::string& name, std::chrono::milliseconds timeout) {
  const auto address = unix_address(name);
  if (!address) {
    return {name.size() > longest_unix_name(name) ? ENAMETOOLONG : EINVAL,
            "a socket's name has 1 to " + std::to_string(longest_unix_name(name)) + " characters"};
  }
  const int error = connect_in_time(fd, *address, timeout);
  if (error == ETIMEDOUT) {
    return {error, "the process that serves it accepts no connection: continue or restart that process"};
  }
  if (error != 0) return {error, std::strerror(error)};
  const ucred listener = peer_of(fd);
  if (!is_abstract(name) || is_trusted(listener) || environment("PELMAR_ANY_USER") == "1") return {};
  return {EPERM, "it is served by " + describe(listener) +
                     ", not by this user or root: run both as one user, or set PELMAR_ANY_USER=1 to trust every user"};
}

UnixConnection connect_unix(const std::string& name) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) return {{errno, std::strerror(errno)}, {}};
  ConnectResult result = connect_unix(fd.get(), name);
  if (result.error != 0) fd.reset();
  return {std::move(result), std::move(fd)};
}

ucred peer_of(int fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) return peer;
  return {0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
}

bool is_trusted(const ucred& peer) {
  return peer.uid == 0 || peer.uid == ::geteuid();
}

std::string describe_refusal(int fd, const std::string& name) {
  const ucred listener = peer_of(fd);
  if (!is_abstract(name) || ::geteuid() == 0 || listener.uid == ::geteuid()) return "";
  return describe(listener) +
         ", which serves it, closed the connection at once: it may admit only its own user and root; run both as one "
         "user";
}

}  // namespace pelmar
