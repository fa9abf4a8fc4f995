#include "power/voter_session.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace pelmar::sim {

namespace power = platform::power;

namespace {

// Room for the longest status and some events.
constexpr Stream::Bounds kBounds{power::kMaxFrameBytes, size_t{32} << 10};

// Readable when the process has ended. Nothing where the kernel cannot watch processes. Debian 12 declares the C
// library's function for C only.
UniqueFd open_process(pid_t process) {
  UniqueFd fd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  if (!fd && errno != ENOSYS) throw std::system_error(errno, std::generic_category(), "pidfd_open");
  return fd;
}

}  // namespace

VoterSession::VoterSession(EventLoop& loop, WaitingOutput& output, UniqueFd fd, uint64_t number, Owner& owner)
    : loop_(loop),
      owner_(owner),
      number_(number),
      stream_(loop, output, std::move(fd), *this, kBounds),
      process_(stream_.process_at_other_end()) {
  if (process_ > 0) process_fd_ = open_process(process_);
  if (process_fd_) loop_.watch(process_fd_.get(), EPOLLIN, watch_);
}

VoterSession::~VoterSession() {
  unwatch_process();
}

size_t VoterSession::on_bytes(std::span<const uint8_t> bytes) {
  size_t used = 0;
  while (is_open()) {
    power::Request request;
    size_t size = 0;
    const power::Front front = power::take_front(bytes.subspan(used), request, size);
    if (front == power::Front::kIncomplete) break;
    if (front == power::Front::kBroken) {
      stream_.close("no request");
      break;
    }
    used += size;
    owner_.on_request(*this, request);
  }
  return used;
}

void VoterSession::on_closed(std::string_view) {
  unwatch_process();
  owner_.on_gone(*this);
}

void VoterSession::unwatch_process() {
  if (process_fd_) loop_.unwatch(process_fd_.get(), watch_);
  process_fd_.reset();
}

void VoterSession::ProcessWatch::on_ready(uint32_t) {
  session_.stream_.close("its process has ended");
}

}  // namespace pelmar::sim
