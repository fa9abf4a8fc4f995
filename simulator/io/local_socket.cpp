#include "io/local_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace pelmar::sim {

namespace {

constexpr int kBacklog = 128;
constexpr std::chrono::milliseconds kPauseWithoutDescriptors{100};

struct Address {
  sockaddr_un socket{};
  socklen_t length = 0;
};

bool is_abstract(const std::string& name) {
  return name.starts_with('@');
}

Address address_of(const std::string& name) {
  Address address;
  address.socket.sun_family = AF_UNIX;
  // An abstract name starts with a zero byte and has no terminator; a path needs one.
  const size_t room = sizeof address.socket.sun_path - (is_abstract(name) ? 0 : 1);
  if (name.size() < (is_abstract(name) ? 2 : 1) || name.size() > room) {
    throw std::runtime_error("socket name '" + name + "' must have 1 to " + std::to_string(room) +
                             " characters: use a shorter path");
  }
  std::copy(name.begin(), name.end(), address.socket.sun_path);
  if (is_abstract(name)) address.socket.sun_path[0] = '\0';
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (is_abstract(name) ? 0 : 1));
  return address;
}

const sockaddr* generic(const Address& address) {
  return reinterpret_cast<const sockaddr*>(&address.socket);
}

UniqueFd new_socket(int flags = 0) {
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  if (!fd) throw std::runtime_error(std::string("cannot create a socket: ") + strerror(errno));
  return fd;
}

bool someone_answers(const Address& address) {
  const UniqueFd probe = new_socket();
  return connect(probe.get(), generic(address), address.length) == 0 || errno != ECONNREFUSED;
}

void remove_socket_of_dead_process(const std::string& name, const Address& address) {
  struct stat file {};
  const bool is_socket = !is_abstract(name) && lstat(name.c_str(), &file) == 0 && S_ISSOCK(file.st_mode);
  if (!is_abstract(name) && !is_socket) {
    throw std::runtime_error("'" + name + "' exists and is no socket: remove it or name another socket");
  }
  if (is_abstract(name) || someone_answers(address)) {
    throw std::runtime_error("another process serves socket '" + name + "': end it or name another socket");
  }
  unlink(name.c_str());
}

int bind_for_owner_only(int fd, const Address& address) {
  const mode_t before = umask(0077);
  const int result = bind(fd, generic(address), address.length);
  umask(before);
  return result;
}

}  // namespace

UniqueFd connect_local(const std::string& name) {
  const Address address = address_of(name);
  UniqueFd fd = new_socket();
  if (connect(fd.get(), generic(address), address.length) != 0) {
    throw std::runtime_error("cannot connect to '" + name + "': " + strerror(errno));
  }
  return fd;
}

LocalListener::LocalListener(EventLoop& loop, std::string name, Accept accept)
    : loop_(loop), name_(std::move(name)), accept_(std::move(accept)), fd_(new_socket(SOCK_NONBLOCK)) {
  const Address address = address_of(name_);
  int result = bind_for_owner_only(fd_.get(), address);
  if (result != 0 && errno == EADDRINUSE) {
    remove_socket_of_dead_process(name_, address);
    result = bind_for_owner_only(fd_.get(), address);
  }
  if (result != 0 || listen(fd_.get(), kBacklog) != 0) {
    throw std::runtime_error("cannot serve socket '" + name_ + "': " + strerror(errno));
  }
  loop_.watch(fd_.get(), EPOLLIN, *this);
}

LocalListener::~LocalListener() {
  loop_.cancel(pause_);
  loop_.unwatch(fd_.get(), *this);
  if (!is_abstract(name_)) unlink(name_.c_str());
}

void LocalListener::on_ready(uint32_t) {
  UniqueFd peer(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (peer) return accept_(std::move(peer));
  if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pause_accepting();
}

// Out of descriptors the pending connection stays pending and would wake the loop without end.
void LocalListener::pause_accepting() {
  loop_.change(fd_.get(), 0, *this);
  pause_ = loop_.after(kPauseWithoutDescriptors, [this] { loop_.change(fd_.get(), EPOLLIN, *this); });
}

}  // namespace pelmar::sim
