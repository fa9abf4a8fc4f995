#include "io/local_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <system_error>

#include "unix_socket.h"

namespace pelmar::sim {

namespace {

constexpr int kBacklog = 128;
constexpr std::chrono::milliseconds kPauseWithoutDescriptors{100};
constexpr std::chrono::seconds kBetweenReports{1};

void remove_socket_of_dead_process(const std::string& name) {
  struct stat file {};
  const bool is_socket = !is_abstract(name) && lstat(name.c_str(), &file) == 0 && S_ISSOCK(file.st_mode);
  if (!is_abstract(name) && !is_socket) {
    throw std::runtime_error("'" + name + "' exists and is no socket: remove it or name another socket");
  }
  if (is_abstract(name) || connect_unix(name).error != ECONNREFUSED) {
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
  UnixConnection connection = connect_unix(name);
  if (!connection.fd) throw std::runtime_error("cannot connect to '" + name + "': " + connection.problem);
  return std::move(connection.fd);
}

LocalListener::LocalListener(EventLoop& loop, std::string name, Accept accept, Admission admission)
    : loop_(loop),
      name_(std::move(name)),
      accept_(std::move(accept)),
      admission_(admission),
      fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  if (!fd_) throw std::runtime_error(std::string("cannot create a socket: ") + strerror(errno));
  const auto address = unix_address(name_);
  if (!address) {
    throw std::runtime_error("socket name '" + name_ + "' must have 1 to " + std::to_string(longest_unix_name(name_)) +
                             " characters: use a shorter path");
  }
  int result = bind_for_owner_only(fd_.get(), *address);
  if (result != 0 && errno == EADDRINUSE) {
    remove_socket_of_dead_process(name_);
    result = bind_for_owner_only(fd_.get(), *address);
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
  if (!peer) {
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pause_accepting();
    return;
  }
  const ucred credentials = peer_of(peer.get());
  if (is_abstract(name_) && admission_ == Admission::kThisUserAndRoot && !is_trusted(credentials)) {
    return report_refusal(credentials);
  }
  // A connection that cannot be served, since memory is lacking or its process has ended, is closed; the others stay.
  try {
    accept_(std::move(peer));
  } catch (const std::bad_alloc&) {
  } catch (const std::system_error&) {
  }
}

void LocalListener::report_refusal(const ucred& peer) {
  ++refused_;
  const auto now = EventLoop::Clock::now();
  if (now < next_report_) return;
  next_report_ = now + kBetweenReports;
  fprintf(stderr,
          "modem_sim: refused a connection to '%s' from process %d of user %u (%llu so far; --any-user admits clients "
          "and voters)\n",
          name_.c_str(), static_cast<int>(peer.pid), peer.uid, static_cast<unsigned long long>(refused_));
}

// Without a free descriptor the connection stays pending, and would wake the loop again and again.
void LocalListener::pause_accepting() {
  loop_.change(fd_.get(), 0, *this);
  pause_ = loop_.after(kPauseWithoutDescriptors, [this] { loop_.change(fd_.get(), EPOLLIN, *this); });
}

}  // namespace pelmar::sim
