#include "local_stream.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace pelmar::bench {

LocalStream::~LocalStream() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

LocalStream LocalStream::connect(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
  return LocalStream(descriptor);
}

bool LocalStream::send_all(const void* bytes, size_t length) const {
  const auto* at = static_cast<const uint8_t*>(bytes);
  while (length > 0) {
    const ssize_t sent = ::send(descriptor_, at, length, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    at += sent;
    length -= static_cast<size_t>(sent);
  }
  return true;
}

bool LocalStream::receive_all(void* bytes, size_t length) const {
  auto* at = static_cast<uint8_t*>(bytes);
  while (length > 0) {
    const size_t received = receive(at, length);
    if (received == 0) return false;
    at += received;
    length -= received;
  }
  return true;
}

std::string LocalStream::receive_line() const {
  std::string line;
  char character;
  while (!line.ends_with('\n') && receive(&character, 1) == 1) line += character;
  return line;
}

size_t LocalStream::receive(void* bytes, size_t room) const {
  const ssize_t received = ::recv(descriptor_, bytes, room, 0);
  return received > 0 ? static_cast<size_t>(received) : 0;
}

}  // namespace pelmar::bench
