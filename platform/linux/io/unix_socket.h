// Unix sockets: their addresses, connections over them, and the user of the peer. The platform, the simulated modem and
// the tools use them, so they all reach a socket by the same name.
//
// The name of a socket is a path or, as "@name", a name of the abstract namespace. A path's file has an owner and a
// mode, which the kernel checks. An abstract name has neither: every user can listen on it and connect to it, so both
// ends check the user of the other one.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "unique_fd.h"

namespace pelmar {

struct UnixAddress {
  sockaddr_un socket{};
  socklen_t length = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&socket); }
};

bool is_abstract(std::string_view name);

// The greatest length of such a name. An abstract name starts with a zero byte in place of its '@' and has no
// terminator; a path needs one.
size_t longest_unix_name(std::string_view name);

// Nothing for a name that is empty or too long.
std::optional<UnixAddress> unix_address(std::string_view name);

struct ConnectResult {
  int error = 0;        // 0, or errno's value; EPERM: the listener is not trusted
  std::string problem;  // the reason of an error and, if that is not obvious, the remedy
};

struct UnixConnection : ConnectResult {
  UniqueFd fd;  // none if there is an error
};

// A connect has a time-out, because a listener that accepts no connection would block its caller for ever.
inline constexpr std::chrono::milliseconds kConnectTimeout{2000};

// Connects a blocking socket. A signal does not interrupt it. A listener on an abstract name must belong to this user
// or to root, unless PELMAR_ANY_USER is 1.
ConnectResult connect_unix(int fd, const std::string& name, std::chrono::milliseconds timeout = kConnectTimeout);

// The same with a new socket.
UnixConnection connect_unix(const std::string& name);

// The process at the other end: the one that connected or, for a client, the one that called listen(). The number of an
// unknown process is 0, that of an unknown user -1.
ucred peer_of(int fd);

// Whether the peer belongs to this user or to root.
bool is_trusted(const ucred& peer);

// Describes, for a log, the problem with a listener that closed this connection before it sent anything. Empty unless
// the listener may have refused this user: the name is abstract, the listener belongs to another user, and this user is
// not root.
std::string describe_refusal(int fd, const std::string& name);

}  // namespace pelmar
