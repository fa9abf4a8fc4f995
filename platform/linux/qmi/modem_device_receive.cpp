// Reads a modem's device, passes the frames to its links, and releases ids that no link owns.
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include "modem_device_internal.h"

namespace pelmar::platform {

// The most bytes that wait for a link whose reader is slow. Further frames for it are dropped.
constexpr size_t kMostWaitingBytes = size_t{1} << 20;

ReadStatus ModemDevice::receive_now(int socket, std::span<uint8_t> room, size_t& received) {
  const ssize_t count = ::recv(socket, room.data(), room.size(), MSG_DONTWAIT);
  if (count < 0 && errno == EAGAIN) return ReadStatus::kTimedOut;
  if (count <= 0) return ReadStatus::kGone;
  received = static_cast<size_t>(count);
  return ReadStatus::kRead;
}

void ModemDevice::read_device() {
  uint8_t* const space = frames_.space();
  const ssize_t count = ::read(device_.get(), space, frames_.room());
  if (count < 0 && errno == ENOBUFS) ::syslog(LOG_WARNING, "%s: the kernel dropped a message", path_.c_str());
  if (count < 0 && (errno == EAGAIN || errno == EINTR || errno == ENOBUFS)) return;
  if (count > 0) frames_.add(static_cast<size_t>(count));
  qmi::Frame frame;
  while (frames_.next(frame)) {
    trace_.write(qmi::Direction::kFromModem, frame);
    pass_on(frame);
  }
  if (frames_.is_broken()) report_problem(path_ + " sent bytes that are no QMUX frame: is it the modem's QMI device?");
  if (count > 0 && !frames_.is_broken()) return;
  is_gone_ = true;
  thread_.wake();
}

void ModemDevice::expect(uint64_t number, bool is_expected) {
  const Lock lock(mutex_);
  const auto link = links_.find(number);
  if (link == links_.end()) return;
  link->second.expects = is_expected;
  if (is_expected && reader_.link == 0 && !is_read_armed_) arm();
}

// Whether the thread must read without a pause once no other thread reads: one waits at a link's socket, or a frame
// waits for the device, which may take no more bytes until we read.
bool ModemDevice::must_read_at_once() const {
  return receivers_ > 0 || !unwritten_.empty() ||
         std::any_of(links_.begin(), links_.end(), [](const auto& link) { return link.second.expects; });
}

ReadStatus ModemDevice::receive(uint64_t link, int socket, std::span<uint8_t> room, const Deadline& deadline,
                                size_t& received) {
  Lock lock(mutex_);
  const auto receive_unread = [&] {
    const ReadStatus result = receive_now(socket, room, received);
    const auto found = links_.find(link);
    if (result == ReadStatus::kRead && found != links_.end()) found->second.unread -= received;
    return result;
  };
  if (deadline.has_passed()) return receive_unread();
  const bool is_reader = become_reader(link, room);
  // An earlier reader may have passed frames to this link; they come first.
  const auto own = links_.find(link);
  const bool has_unread = own == links_.end() || own->second.unread > 0;
  ReadStatus status = has_unread ? receive_unread() : ReadStatus::kTimedOut;
  if (!is_reader) ++receivers_;
  if (!is_reader && reader_.link == 0 && !is_read_armed_) arm();
  while (status == ReadStatus::kTimedOut && !deadline.has_passed()) {
    pollfd ready[] = {{socket, POLLIN, 0}, {device_.get(), POLLIN, 0}};
    lock.unlock();
    const timespec time = deadline.remaining_time();
    ::ppoll(ready, is_reader ? 2 : 1, deadline.is_none() ? nullptr : &time, nullptr);
    lock.lock();
    if (is_reader && ready[1].revents != 0 && !is_gone_) read_device();
    if (is_reader && reader_.received > 0) {
      received = reader_.received;
      status = ReadStatus::kRead;
    } else {
      status = is_reader && is_gone_ ? ReadStatus::kGone : receive_unread();
    }
  }
  if (is_reader) {
    end_reading();
  } else {
    --receivers_;
  }
  return status;
}

bool ModemDevice::become_reader(uint64_t number, std::span<uint8_t> room) {
  const auto link = links_.find(number);
  const bool can_read = reader_.link == 0 && !is_gone_ && link != links_.end() && link->second.waiting.empty();
  if (!can_read) return false;
  reader_ = {number, room};
  if (is_read_armed_) arm();
  return true;
}

void ModemDevice::end_reading() {
  reader_ = {};
  const auto action = must_read_at_once() ? ReadingPause::Action::kArm : pause_.reader_ended();
  if (action == ReadingPause::Action::kArm) arm();
  if (action == ReadingPause::Action::kWakeThread) thread_.wake();
  if (is_gone_) changed_.notify_all();
}

void ModemDevice::pass_on(const qmi::Frame& frame) {
  if (frame.service == qmi::kControlService) return pass_control(frame);
  if (frame.client == qmi::kAllClients) return send_to_all(bytes_of(frame));
  const auto owner = owners_.find({frame.service, frame.client});
  if (owner != owners_.end()) send_to(owner->second, bytes_of(frame));
}

void ModemDevice::pass_control(const qmi::Frame& frame) {
  constexpr uint8_t kIdTlv = 0x01;
  const auto message = qmi::read_message(frame);
  if (!message) return;
  if (message->kind == qmi::MessageKind::kIndication) return send_to_all(bytes_of(frame));
  const ControlRequest request = std::exchange(control_[message->transaction], {});
  if (request.link == 0) return;
  const auto id = qmi::find_tlv(message->tlvs, kIdTlv);
  if (message->id == ctl::kAllocateClientId && id && id->size() >= 2) {
    if (!links_.contains(request.link)) return release_id((*id)[0], (*id)[1]);
    owners_[{(*id)[0], (*id)[1]}] = request.link;
  }
  const Bytes bytes = bytes_of(frame);
  std::vector<uint8_t> copy(bytes.begin(), bytes.end());
  copy[qmi::kFrameHeaderLength + 1] = request.transaction;
  send_to(request.link, copy);
}

// Releases a client id whose requester has ended. The response has no receiver.
void ModemDevice::release_id(uint8_t service, uint8_t client) {
  std::vector<uint8_t> bytes(32);
  qmi::FrameWriter writer(qmi::Direction::kToModem, bytes);
  last_transaction_ = next_control_transaction(last_transaction_);
  control_[last_transaction_] = {};
  writer.start(qmi::kControlService, qmi::kNoClient, qmi::MessageKind::kRequest, last_transaction_,
               ctl::kReleaseClientId);
  constexpr uint8_t kIdTlv = 0x01;
  writer.add_tlv(kIdTlv, std::array{service, client});
  const auto frame = writer.finish();
  trace_.write_sent(frame);
  unwritten_.push_back({0, {frame.begin(), frame.end()}, true});  // belongs to no link, so no link's end removes it
  arm();
}

// A frame is sent whole or dropped, so that the link's bytes stay frames.
void ModemDevice::send_to(uint64_t number, Bytes bytes) {
  if (number == reader_.link && !reader_.is_full) {
    reader_.is_full = bytes.size() > reader_.room.size() - reader_.received;
    if (!reader_.is_full) {
      std::copy(bytes.begin(), bytes.end(), reader_.room.begin() + static_cast<ptrdiff_t>(reader_.received));
      reader_.received += bytes.size();
      return;
    }
  }
  const auto found = links_.find(number);
  if (found == links_.end()) return;
  Link& link = found->second;
  if (link.waiting.size() + bytes.size() > kMostWaitingBytes) {
    ++link.dropped;
    return;
  }
  link.waiting.insert(link.waiting.end(), bytes.begin(), bytes.end());
  flush(number, link);
}

void ModemDevice::send_to_all(Bytes bytes) {
  for (const auto& [number, link] : links_) send_to(number, bytes);
}

void ModemDevice::flush(uint64_t number, Link& link) {
  const ssize_t count =
      ::send(link.socket.get(), link.waiting.data(), link.waiting.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (count < 0 && errno != EAGAIN && errno != EINTR) link.waiting.clear();  // the reader has closed its end
  if (count > 0) {
    link.waiting.erase(link.waiting.begin(), link.waiting.begin() + count);
    link.unread += static_cast<size_t>(count);
  }
  watch(EPOLL_CTL_MOD, link.socket.get(), link.waiting.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT, kDevice + number);
  if (link.dropped == 0 || !link.waiting.empty()) return;
  ::syslog(LOG_WARNING, "A client's callbacks are too slow, %zu messages of the modem's device were dropped",
           std::exchange(link.dropped, 0));
}

}  // namespace pelmar::platform
