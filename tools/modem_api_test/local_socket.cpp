#include "local_socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

namespace pelmar::cli {

namespace {

// A QMUX frame to the control service: which services are there? It changes nothing in the modem.
constexpr uint8_t kGetVersionInfo[] = {0x01, 0x0B, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x21, 0x00, 0x00, 0x00};

// A modem that refuses a connection closes it at once.
constexpr int kRefusalPatienceMs = 100;

}  // namespace

bool responds(const UnixConnection& connection, std::chrono::milliseconds patience) {
  const int fd = connection.fd.get();
  if (fd < 0 || send(fd, kGetVersionInfo, sizeof kGetVersionInfo, MSG_NOSIGNAL) != sizeof kGetVersionInfo) return false;
  pollfd readable = {fd, POLLIN, 0};
  uint8_t response[512];
  return poll(&readable, 1, static_cast<int>(patience.count())) == 1 && recv(fd, response, sizeof response, 0) > 0;
}

std::string find_obstacle(const std::string& name) {
  const UnixConnection connection = connect_unix(name);
  if (connection.error == ENOENT || connection.error == ECONNREFUSED) return "";
  if (connection.error != 0) return connection.problem;
  const std::string refusal = describe_refusal(connection.fd.get(), name);
  pollfd readable = {connection.fd.get(), POLLIN, 0};
  if (refusal.empty() || poll(&readable, 1, kRefusalPatienceMs) != 1) return "";
  return refusal;
}

}  // namespace pelmar::cli
