#include "io/stream.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "unix_socket.h"

namespace pelmar::sim {

namespace {

constexpr std::string_view kNoMemory = "there is no memory for it";

std::string_view reason_of(int error) {
  return error == ECONNRESET || error == EPIPE ? Stream::kClosedByPeer : strerror(error);
}

bool is_temporary(int error) {
  return error == EAGAIN || error == EINTR;
}

}  // namespace

bool WaitingOutput::drop_longest_waiting() {
  if (waiting_.empty()) return false;
  waiting_.front()->close("has read nothing for the longest time, and the output for all has reached its bound");
  return true;
}

Stream::Stream(EventLoop& loop, WaitingOutput& all, UniqueFd fd, Reader& reader, Bounds bounds)
    : loop_(loop), all_(all), fd_(std::move(fd)), reader_(reader), bounds_(bounds), input_(new uint8_t[bounds.input]) {
  loop_.watch(fd_.get(), EPOLLIN, *this);
}

Stream::~Stream() {
  if (fd_) loop_.unwatch(fd_.get(), *this);
  set_share(0);
}

pid_t Stream::process_at_other_end() const {
  return peer_of(fd_.get()).pid;
}

void Stream::on_ready(uint32_t events) {
  try {
    if (events & EPOLLOUT) flush();
    if (is_open() && (events & (EPOLLIN | EPOLLHUP | EPOLLERR))) receive();
  } catch (const std::bad_alloc&) {
    close(kNoMemory);
  }
}

// Reads once for each wake-up, so that a peer that sends without pause does not keep the others waiting.
void Stream::receive() {
  const ssize_t count = recv(fd_.get(), input_.get() + received_, bounds_.input - received_, MSG_DONTWAIT);
  if (count == 0) return close(kClosedByPeer);
  if (count < 0) {
    if (!is_temporary(errno)) close(reason_of(errno));
    return;
  }
  received_ += static_cast<size_t>(count);
  const size_t used = reader_.on_bytes({input_.get(), received_});
  if (!is_open()) return;
  received_ -= used;
  if (received_ != 0 && used != 0) memmove(input_.get(), input_.get() + used, received_);
  if (received_ == bounds_.input) close("more input than one message can have");
}

void Stream::send(std::span<const uint8_t> bytes) {
  if (!is_open()) return;
  if (waiting_.empty()) {
    const ssize_t count = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && !is_temporary(errno)) return close(reason_of(errno));
    bytes = bytes.subspan(count < 0 ? 0 : static_cast<size_t>(count));
    if (bytes.empty()) return;
    loop_.change(fd_.get(), EPOLLIN | EPOLLOUT, *this);
  }
  keep(bytes);
}

void Stream::keep(std::span<const uint8_t> bytes) {
  if (waiting_.size() - taken_ + bytes.size() > bounds_.output) return close("does not read what it is sent");
  try {
    waiting_.insert(waiting_.end(), bytes.begin(), bytes.end());
    set_share(waiting_.capacity());
  } catch (const std::bad_alloc&) {
    close(kNoMemory);
  }
}

void Stream::forget_output() {
  waiting_ = {};
  taken_ = 0;
  set_share(0);
}

// May close streams, also this one.
void Stream::set_share(size_t bytes) {
  if (share_ == 0 && bytes != 0) place_ = all_.waiting_.insert(all_.waiting_.end(), this);
  if (share_ != 0 && bytes == 0) all_.waiting_.erase(place_);
  all_.total_ = all_.total_ - share_ + bytes;
  share_ = bytes;
  while (all_.total_ > all_.kLimit) all_.drop_longest_waiting();
}

void Stream::flush() {
  const ssize_t count =
      ::send(fd_.get(), waiting_.data() + taken_, waiting_.size() - taken_, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count < 0) {
    if (!is_temporary(errno)) close(reason_of(errno));
    return;
  }
  taken_ += static_cast<size_t>(count);
  if (share_ != 0) all_.waiting_.splice(all_.waiting_.end(), all_.waiting_, place_);  // its peer has read last
  if (taken_ == waiting_.size()) {
    forget_output();
    loop_.change(fd_.get(), EPOLLIN, *this);
    reader_.on_drained();
  } else if (taken_ >= bounds_.output / 2) {
    waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<ptrdiff_t>(taken_));
    taken_ = 0;
  }
}

void Stream::close(std::string_view reason) {
  if (!is_open()) return;
  loop_.unwatch(fd_.get(), *this);
  fd_.reset();
  forget_output();
  reader_.on_closed(reason);
}

}  // namespace pelmar::sim
