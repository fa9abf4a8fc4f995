#include "qmi/device_server.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "unix_socket.h"

namespace pelmar::sim {

namespace {

// The time between checks whether a program has opened the device, which the kernel does not report.
constexpr std::chrono::milliseconds kLookPause{20};

// The time for which the device is absent after its connection was closed.
constexpr std::chrono::milliseconds kAway{200};

std::runtime_error failure(const std::string& what) {
  return std::runtime_error(what + ": " + strerror(errno));
}

UniqueFd make_terminal() {
  UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!terminal || grantpt(terminal.get()) != 0 || unlockpt(terminal.get()) != 0) {
    throw failure("cannot make a pseudo-terminal");
  }
  termios settings{};
  tcgetattr(terminal.get(), &settings);
  cfmakeraw(&settings);
  tcsetattr(terminal.get(), TCSANOW, &settings);
  return terminal;
}

std::string name_of(const UniqueFd& terminal) {
  char name[128];
  if (ptsname_r(terminal.get(), name, sizeof name) != 0) throw failure("cannot name the pseudo-terminal");
  return name;
}

// poll() reports a hang-up of the master only after the terminal was opened and closed once.
void open_and_close(const std::string& terminal) {
  const UniqueFd program(open(terminal.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
}

// Returns a socket whose name shows, until the process ends, that this path is taken.
UniqueFd reserve(const std::string& path) {
  namespace fs = std::filesystem;
  const fs::path directory = fs::path(path).parent_path();
  struct stat file {};
  if (stat(directory.empty() ? "." : directory.c_str(), &file) != 0)
    throw failure("cannot find the directory of '" + path + "'");
  const std::string key =
      std::to_string(file.st_dev) + ':' + std::to_string(file.st_ino) + ':' + fs::path(path).filename().string();
  const auto name = unix_address("@modem_sim-device-" + std::to_string(std::hash<std::string>()(key)));
  UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd && bind(fd.get(), name->get(), name->length) == 0) return fd;
  if (errno != EADDRINUSE) throw failure("cannot reserve the device '" + path + "'");
  throw std::runtime_error("another modem_sim serves the device '" + path + "': end it or name another path");
}

void make_link(const std::string& terminal, const std::string& path) {
  struct stat file {};
  const bool is_link = lstat(path.c_str(), &file) == 0 && S_ISLNK(file.st_mode);
  if (is_link) unlink(path.c_str());  // of a process that was killed
  if (symlink(terminal.c_str(), path.c_str()) != 0) throw failure("cannot make the device's link '" + path + "'");
}

}  // namespace

class DeviceConnection final : public Connection, public EventLoop::Watcher {
 public:
  DeviceConnection(Connections& connections, uint64_t number, DeviceServer& server, UniqueFd terminal)
      : Connection(connections, number, 0), server_(server), terminal_(std::move(terminal)) {
    server_.loop_.watch(terminal_.get(), EPOLLIN, *this);
  }
  ~DeviceConnection() override { stop(); }

  void close(std::string_view reason) override {
    if (!terminal_) return;
    stop();
    closed(reason);
    server_.unplug();
  }

  bool is_drained() const override { return waiting_.empty(); }
  bool has_peer() const override { return !is_looking_; }

  void stop() {
    if (!terminal_) return;
    server_.loop_.unwatch(terminal_.get(), *this);
    server_.loop_.cancel(look_);
    terminal_.reset();
  }

  void on_ready(uint32_t events) override {
    if ((events & (EPOLLIN | EPOLLHUP)) == EPOLLHUP) forget_program();
    if ((events & ~EPOLLOUT) != 0) receive();
    if (terminal_ && (events & EPOLLOUT) != 0) flush();
  }

 private:
  // A message for which there is no room, because the program reads too slowly, is dropped whole.
  void transmit(std::span<const uint8_t> bytes) override {
    if (!terminal_ || waiting_bytes_ + bytes.size() > kMaxWaitingBytes) return;
    waiting_.emplace_back(bytes.begin(), bytes.end());
    waiting_bytes_ += bytes.size();
    flush();
  }

  std::string address() const override { return server_.path_; }

  void receive() {
    const size_t before = input_.size();
    input_.resize(before + qmi::kMaxFrameLength);
    const ssize_t count = read(terminal_.get(), input_.data() + before, qmi::kMaxFrameLength);
    input_.resize(before + static_cast<size_t>(count > 0 ? count : 0));
    if (count == 0 || (count < 0 && errno == EIO)) return wait_for_program();
    size_t used = 0;
    while (terminal_) {
      const qmi::Front front = qmi::read_front(std::span(input_).subspan(used), qmi::Direction::kToModem);
      if (front.state == qmi::Front::State::kIncomplete) break;
      if (front.state == qmi::Front::State::kBroken) return input_.clear();
      received(front.frame);
      used += front.length;
    }
    input_.erase(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(used));
  }

  void flush() {
    while (!waiting_.empty()) {
      std::vector<uint8_t>& frame = waiting_.front();
      const ssize_t count = write(terminal_.get(), frame.data(), frame.size());
      if (count <= 0) break;
      waiting_bytes_ -= static_cast<size_t>(count);
      frame.erase(frame.begin(), frame.begin() + count);
      if (frame.empty()) waiting_.pop_front();
    }
    if (!is_looking_) {
      const uint32_t events = waiting_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT;
      server_.loop_.change(terminal_.get(), events, *this);
    }
    if (waiting_.empty()) drained();
  }

  // Drops what the closed program did not send whole, or did not read. What the terminal has received stays: it may be
  // the request of the next program.
  void forget_program() {
    input_.clear();
    waiting_.clear();
    waiting_bytes_ = 0;
    tcflush(terminal_.get(), TCOFLUSH);
  }

  // The program has closed the device. The terminal would report that continuously, so it is not watched until a
  // program opens it again.
  void wait_for_program() {
    forget_program();
    if (!is_looking_) {
      server_.loop_.unwatch(terminal_.get(), *this);
      is_looking_ = true;
      connections_.peers_changed();
    }
    look_ = server_.loop_.after(kLookPause, [this] {
      pollfd state = {terminal_.get(), POLLIN, 0};
      if (poll(&state, 1, 0) > 0 && state.revents == POLLHUP) return wait_for_program();
      is_looking_ = false;
      connections_.peers_changed();
      server_.loop_.watch(terminal_.get(), EPOLLIN, *this);
    });
    drained();  // what waited is dropped; a sender that waits for room goes on
  }

  DeviceServer& server_;
  UniqueFd terminal_;  // the modem's end; none once the connection is closed
  bool is_looking_ = false;
  EventLoop::TimerId look_{};
  std::vector<uint8_t> input_;                // an incomplete frame
  std::deque<std::vector<uint8_t>> waiting_;  // frames that the terminal has no room for
  size_t waiting_bytes_ = 0;
};

DeviceServer::DeviceServer(EventLoop& loop, Connections& connections, std::string path)
    : loop_(loop), connections_(connections), path_(std::move(path)), reservation_(reserve(path_)) {
  plug_in();
}

DeviceServer::~DeviceServer() {
  loop_.cancel(timer_);
  if (connection_) connection_->stop();
  remove_link();
}

void DeviceServer::plug_in() {
  UniqueFd terminal = make_terminal();
  terminal_ = name_of(terminal);
  open_and_close(terminal_);
  make_link(terminal_, path_);
  connection_ = connections_.add<DeviceConnection>(*this, std::move(terminal));
}

// Another modem may have made a link of its own at this path.
void DeviceServer::remove_link() const {
  char target[128];
  const ssize_t length = readlink(path_.c_str(), target, sizeof target);
  if (length > 0 && std::string(target, static_cast<size_t>(length)) == terminal_) unlink(path_.c_str());
}

void DeviceServer::unplug() {
  remove_link();
  loop_.post([gone = std::move(connection_)] {});
  timer_ = loop_.after(kAway, [this] {
    try {
      plug_in();
    } catch (const std::runtime_error& error) {
      fprintf(stderr, "modem_sim: %s\n", error.what());
    }
  });
}

}  // namespace pelmar::sim
