#include "io/local_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <system_error>

#include "unix_address.h"

namespace pelmar::sim {

namespace {

constexpr int kBacklog = 128;
constexpr std::chrono::milliseconds kPauseWithoutDescriptors{100};

UnixAddress address_of(const std::string& name) {
  const auto address = unix_address(name);
  if (address) return *address;
  throw std::runtime_error("socket name '" + name + "' must have 1 to " + std::to_string(longest_unix_name(name)) +
                           " characters: use a shorter path");
}

UniqueFd new_socket(int flags = 0) {
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  if (!fd) throw std::runtime_error(std::string("cannot create a socket: ") + strerror(errno));
  return fd;
}

bool someone_answers(const UnixAddress& address) {
  const UniqueFd probe = new_socket();
  return connect(probe.get(), address.get(), address.length) == 0 || errno != ECONNREFUSED;
}

void remove_socket_of_dead_process(const std::string& name, const UnixAddress& address) {
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

int bind_for_owner_only(int fd, const UnixAddress& address) {
  const mode_t before = umask(0077);
  const int result = bind(fd, address.get(), address.length);
  umask(before);
  return result;
}

}  // namespace

UniqueFd connect_local(const std::string& name) {
  const UnixAddress address = address_of(name);
  UniqueFd fd = new_socket();
  if (connect(fd.get(), address.get(), address.length) != 0) {
    throw std::runtime_error("cannot connect to '" + name + "': " + strerror(errno));
  }
  return fd;
}

LocalListener::LocalListener(EventLoop& loop, std::string name, Accept accept)
    : loop_(loop), name_(std::move(name)), accept_(std::move(accept)), fd_(new_socket(SOCK_NONBLOCK)) {
  const UnixAddress address = address_of(name_);
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
  if (peer) return hand_over(std::move(peer));
  if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pause_accepting();
}

// A connection that cannot be served, for lack of memory or because its process is gone, is closed; the others go on.
void LocalListener::hand_over(UniqueFd peer) {
  try {
    accept_(std::move(peer));
  } catch (const std::bad_alloc&) {
  } catch (const std::system_error&) {
  }
}

// Out of descriptors the pending connection stays pending and would wake the loop without end.
void LocalListener::pause_accepting() {
  loop_.change(fd_.get(), 0, *this);
  pause_ = loop_.after(kPauseWithoutDescriptors, [this] { loop_.change(fd_.get(), EPOLLIN, *this); });
}

}  // namespace pelmar::sim
