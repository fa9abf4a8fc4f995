#include "local_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace pelmar::cli {

namespace {

// A QMUX frame to the control service: which services are there? It changes nothing in the modem.
constexpr uint8_t kGetVersionInfo[] = {0x01, 0x0B, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x21, 0x00, 0x00, 0x00};

}  // namespace

LocalConnection connect_local(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const bool is_abstract = name.starts_with('@');
  // An abstract name starts with a zero byte and has no terminator; a path needs one.
  if (name.empty() || name.size() + (is_abstract ? 0 : 1) > sizeof address.sun_path) return {{}, ENAMETOOLONG};
  std::copy(name.begin(), name.end(), address.sun_path);
  if (is_abstract) address.sun_path[0] = '\0';
  const size_t length = offsetof(sockaddr_un, sun_path) + name.size() + (is_abstract ? 0 : 1);

  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd || connect(fd.get(), reinterpret_cast<sockaddr*>(&address), static_cast<socklen_t>(length)) != 0) {
    return {{}, errno};
  }
  return {std::move(fd), 0};
}

bool answers(const LocalConnection& connection, std::chrono::milliseconds patience) {
  const int fd = connection.fd.get();
  if (fd < 0 || send(fd, kGetVersionInfo, sizeof kGetVersionInfo, MSG_NOSIGNAL) != sizeof kGetVersionInfo) return false;
  pollfd readable = {fd, POLLIN, 0};
  uint8_t answer[512];
  return poll(&readable, 1, static_cast<int>(patience.count())) == 1 && recv(fd, answer, sizeof answer, 0) > 0;
}

}  // namespace pelmar::cli
