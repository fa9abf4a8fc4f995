#include "local_socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "unix_address.h"

namespace pelmar::cli {

namespace {

// A QMUX frame to the control service: which services are there? It changes nothing in the modem.
constexpr uint8_t kGetVersionInfo[] = {0x01, 0x0B, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x21, 0x00, 0x00, 0x00};

}  // namespace

LocalConnection connect_local(const std::string& name) {
  const auto address = unix_address(name);
  if (!address) return {{}, name.size() > longest_unix_name(name) ? ENAMETOOLONG : EINVAL};
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd || connect(fd.get(), address->get(), address->length) != 0) {
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
