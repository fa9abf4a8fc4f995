// Connections over Unix sockets, and who is at their other end. Of the platform, the simulated modem and the tools
// alike.
//
// The file of a path's socket has an owner and a mode, which the kernel checks. An abstract name has neither: every
// user can listen on it and connect to it, so both ends check the user of the other one.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <string>

#include "unique_fd.h"

namespace pelmar {

struct ConnectResult {
  int error = 0;        // 0, or errno's value; EPERM: the listener is not trusted
  std::string problem;  // of an error: the reason, with what to do about it where that is not obvious
};

struct UnixConnection : ConnectResult {
  UniqueFd fd;  // none where there is an error
};

// A listener that accepts nobody would hold a caller for ever.
inline constexpr std::chrono::milliseconds kConnectTimeout{2000};

// Connects a blocking socket to a path or, as "@name", to an abstract name. Signals do not disturb it. A listener on an
// abstract name that is neither of this user nor root's is refused, unless PELMAR_ANY_USER is 1.
ConnectResult connect_unix(int fd, const std::string& name, std::chrono::milliseconds timeout = kConnectTimeout);

// The same with a socket of its own.
UnixConnection connect_unix(const std::string& name);

// The process at the other end: who connected or, for a client, who called listen(). A process that is not known has
// the number 0, a user that is not known the number -1.
ucred peer_of(int fd);

// Whether the peer is of this user or root.
bool is_trusted(const ucred& peer);

// The problem with a listener that closed this connection before it sent anything, for a log. Empty unless the listener
// may have refused this user: the name is abstract, the listener another user's, and this user is not root.
std::string describe_refusal(int fd, const std::string& name);

}  // namespace pelmar
