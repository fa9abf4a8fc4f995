// The open devices of this process, the thread and the links of each, and what links send.
#include "modem_device.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "device_file.h"
#include "modem_device_internal.h"

namespace pelmar::platform {

ModemDevice::ModemDevice(std::string path, ProcessFd device)
    : path_(std::move(path)), poll_([] { return ::epoll_create1(EPOLL_CLOEXEC); }), device_(std::move(device)) {
  if (!poll_) throw std::system_error(errno, std::generic_category(), "epoll_create1");
  watch(EPOLL_CTL_ADD, thread_.descriptor(), EPOLLIN, kWakeUp);
  watch(EPOLL_CTL_ADD, device_.get(), EPOLLIN | EPOLLONESHOT, kDevice);
}

uint64_t ModemDevice::add(ProcessFd socket) {
  const Lock lock(mutex_);
  const uint64_t number = ++last_link_;
  watch(EPOLL_CTL_ADD, socket.get(), EPOLLIN, kDevice + number);
  links_.emplace(number, Link{std::move(socket)});
  return number;
}

void ModemDevice::watch(int operation, int descriptor, uint32_t events, uint64_t name) const {
  epoll_event event{};
  event.events = events;
  event.data.u64 = name;
  ::epoll_ctl(poll_.get(), operation, descriptor, &event);
}

void ModemDevice::run() {
  Lock lock(mutex_);
  while (!close_if_unused(lock)) {
    const int limit = pause_.is_timed() ? static_cast<int>(ReadingPause::kLength.count()) : -1;
    lock.unlock();
    epoll_event ready[16];
    const int count = ::epoll_wait(poll_.get(), ready, std::size(ready), limit);
    lock.lock();
    if (pause_.take_end() && reader_.link == 0) arm();
    for (int i = 0; i < count; ++i) {
      const uint32_t events = ready[i].events;
      const auto link = links_.find(ready[i].data.u64 - kDevice);
      if (ready[i].data.u64 == kWakeUp) {
        thread_.acknowledge();
      } else if (ready[i].data.u64 == kDevice) {
        if ((events & EPOLLOUT) != 0) write_device();
        if (reader_.link == 0 && (events & ~EPOLLOUT) != 0) read_device();
        arm();
      } else if (link != links_.end()) {
        uint8_t byte;
        size_t received = 0;
        if ((events & EPOLLOUT) != 0) flush(link->first, link->second);
        if ((events & ~EPOLLOUT) != 0) {
          link->second.is_ended = receive_now(link->second.socket.get(), {&byte, 1}, received) != ReadStatus::kTimedOut;
        }
      }
    }
    erase_ended_links();
  }
}

// A frame that is partly written remains, because the device needs its rest.
void ModemDevice::erase_ended_links() {
  if (std::erase_if(links_, [](const auto& entry) { return entry.second.is_ended; }) == 0) return;
  std::erase_if(unwritten_,
                [this](const Unwritten& frame) { return !frame.has_begun && !links_.contains(frame.link); });
  changed_.notify_all();
}

// Closes the device and returns true if there are no links or the device is gone.
bool ModemDevice::close_if_unused(Lock& lock) {
  if (!links_.empty() && !is_gone_) return false;
  lock.unlock();
  Registry& registry = Registry::of_this_process();
  const std::lock_guard registry_lock(registry.mutex);
  lock.lock();
  if (!links_.empty() && !is_gone_) return false;
  is_gone_ = true;
  links_.clear();  // their sockets report the end to the readers
  changed_.notify_all();
  changed_.wait(lock, [this] { return reader_.link == 0; });
  registry.devices.erase(path_);
  device_.reset();
  thread_.detach();
  return true;
}

// Arms the thread's poll of the device. The poll is one-shot, because a device that hung up remains ready.
void ModemDevice::arm() {
  const uint32_t reads = reader_.link == 0 ? uint32_t{EPOLLIN} : 0;
  const uint32_t writes = unwritten_.empty() ? 0 : uint32_t{EPOLLOUT};
  is_read_armed_ = reads != 0;
  if (!is_gone_) watch(EPOLL_CTL_MOD, device_.get(), reads | writes | EPOLLONESHOT, kDevice);
}

// One write for each frame: a USB driver takes each write for a message of its own.
void ModemDevice::write_device() {
  while (!unwritten_.empty()) {
    Unwritten& frame = unwritten_.front();
    const ssize_t count = ::write(device_.get(), frame.bytes.data(), frame.bytes.size());
    if (count < 0) break;  // a device that is gone is seen by the reader
    frame.has_begun = true;
    frame.bytes.erase(frame.bytes.begin(), frame.bytes.begin() + count);
    if (frame.bytes.empty()) unwritten_.pop_front();
  }
  changed_.notify_all();
}

// Each link counts its CTL transactions by itself, so the device gets numbers of our own.
SendStatus ModemDevice::send(uint64_t link, Bytes frame) {
  constexpr size_t kServiceAt = 4;
  constexpr size_t kTransactionAt = qmi::kFrameHeaderLength + 1;
  const Lock lock(mutex_);
  if (is_gone_ || !links_.contains(link)) return SendStatus::kGone;
  std::vector<uint8_t> copy;
  if (frame[kServiceAt] == qmi::kControlService) {
    copy.assign(frame.begin(), frame.end());
    last_transaction_ = next_control_transaction(last_transaction_);
    control_[last_transaction_] = {link, std::exchange(copy[kTransactionAt], last_transaction_)};
    frame = copy;
  }
  trace_.write_sent(frame);
  ssize_t count = 0;
  if (unwritten_.empty()) {
    count = ::write(device_.get(), frame.data(), frame.size());
    if (count == static_cast<ssize_t>(frame.size())) return SendStatus::kSent;
    if (count < 0 && errno != EAGAIN && errno != EINTR) return SendStatus::kGone;
  }
  const size_t written = static_cast<size_t>(std::max<ssize_t>(count, 0));
  unwritten_.push_back({link, {frame.begin() + static_cast<ptrdiff_t>(written), frame.end()}, written > 0});
  arm();
  return SendStatus::kBlocked;
}

SendStatus ModemDevice::flush(uint64_t link, const Deadline& deadline) {
  Lock lock(mutex_);
  const auto is_lost = [&] { return is_gone_ || !links_.contains(link); };
  const auto has_ended = [&] {
    return is_lost() || std::none_of(unwritten_.begin(), unwritten_.end(),
                                     [link](const Unwritten& frame) { return frame.link == link; });
  };
  if (deadline.is_none()) {
    changed_.wait(lock, has_ended);
  } else if (!changed_.wait_until(lock, deadline.at(), has_ended)) {
    return SendStatus::kTimedOut;
  }
  return is_lost() ? SendStatus::kGone : SendStatus::kSent;
}

namespace {

DeviceLink connect(const std::string& path) {
  auto& registry = ModemDevice::Registry::of_this_process();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.devices.find(path);
  const bool is_open = found != registry.devices.end();
  Problem problem;
  ProcessFd opened, socket, other;
  if (!is_open) opened = open_device(path, problem);
  if (problem) return {{}, nullptr, 0, problem};
  if (!ProcessFd::make_socket_pair(socket, other)) return {{}, nullptr, 0, {std::strerror(errno)}};
  const auto device = is_open ? found->second : std::make_shared<ModemDevice>(path, std::move(opened));
  const uint64_t number = device->add(std::move(other));
  if (!is_open) {
    device->start();
    registry.devices.emplace(path, device);
  }
  return {std::move(socket), device, number};
}

}  // namespace

DeviceLink connect_device(const std::string& path) {
  try {
    return connect(path);
  } catch (const std::system_error& error) {  // there are no free descriptors or threads
    return {{}, nullptr, 0, {error.what(), true}};
  }
}

SendStatus send_to_device(const DeviceLink& link, std::span<const uint8_t> frame) {
  return link.device->send(link.number, frame);
}

SendStatus flush_device(const DeviceLink& link, const Deadline& deadline) {
  return link.device->flush(link.number, deadline);
}

void expect_from_device(const DeviceLink& link, bool is_expected) {
  link.device->expect(link.number, is_expected);
}

ReadStatus receive_from_device(const DeviceLink& link, int socket, std::span<uint8_t> room, const Deadline& deadline,
                               size_t& received) {
  return link.device->receive(link.number, socket, room, deadline, received);
}

}  // namespace pelmar::platform
