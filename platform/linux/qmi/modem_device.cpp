#include "modem_device.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <system_error>
#include <vector>

#include "environment.h"
#include "message_trace.h"
#include "qmux_link.h"
#include "reading_pause.h"

namespace pelmar::platform {
namespace {

using Bytes = std::span<const uint8_t>;

// The most bytes that wait for a link whose reader is slow. Further frames for it are dropped.
constexpr size_t kMostWaitingBytes = size_t{1} << 20;

// --- opening ---

bool is_pseudo_terminal(const struct stat& file) {
  return major(file.st_rdev) >= 136 && major(file.st_rdev) <= 143;
}

bool speaks_mbim(const std::string& path, const struct stat& device) {
  const std::string entry =
      "/sys/dev/char/" + std::to_string(major(device.st_rdev)) + ":" + std::to_string(minor(device.st_rdev));
  std::error_code error;
  const auto driver = std::filesystem::read_symlink(entry + "/device/driver", error).filename();
  const auto name = std::filesystem::canonical(path, error).filename().string();
  return driver == "cdc_mbim" || name.find("mbim") != name.npos || read_small_file(entry + "/type") == "MBIM\n";
}

// Pseudo-terminals of different file systems, such as those of containers, may have the same device numbers.
bool is_same(const struct stat& one, const struct stat& other) {
  if (!S_ISCHR(one.st_mode) || one.st_rdev != other.st_rdev) return false;
  return !is_pseudo_terminal(one) || (one.st_dev == other.st_dev && one.st_ino == other.st_ino);
}

// Only descriptors below /dev are examined, because stat() of a file on a network may block.
bool has_open(const std::string& process, const struct stat& device) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/proc/" + process + "/fd", error), end; entry != end;
       entry.increment(error)) {
    const char* const descriptor = entry->path().c_str();
    char target[5];
    struct stat file {};
    if (::readlink(descriptor, target, sizeof target) == sizeof target &&
        std::memcmp(target, "/dev/", sizeof target) == 0 && ::stat(descriptor, &file) == 0 && is_same(file, device)) {
      return true;
    }
  }
  return false;
}

// Returns a description of another process that has the device open, empty if there is none. Processes of other users
// may be hidden.
std::string find_other_user(const struct stat& device) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/proc", error), end; entry != end; entry.increment(error)) {
    const std::string process = entry->path().filename();
    const bool is_process = process.find_first_not_of("0123456789") == process.npos;
    if (is_process && process != std::to_string(::getpid()) && has_open(process, device)) {
      return "process " + process + " (" + process_name(std::stoi(process)) + ")";
    }
  }
  return "";
}

std::string describe_use(const std::string& path, const struct stat& device) {
  const std::string user = find_other_user(device);
  return (user.empty() ? "another process" : user) +
         " has it open: end that process, or share the device with --modem proxy:" + path;
}

std::string describe_failure(const std::string& path, int error, const struct stat& device) {
  if (error == EBUSY) return describe_use(path, device);
  if (error == EACCES || error == EPERM) {
    return "this user may not open it: run as root, or add the user to the group that owns it (ls -l " + path + ")";
  }
  return std::strerror(error);
}

// Sets a terminal to pass every byte unchanged, and drops the bytes that an earlier user did not read. A
// pseudo-terminal is not made exclusive, because it would remain so after it is closed.
bool prepare_if_terminal(int device, const struct stat& file) {
  termios settings{};
  if (::tcgetattr(device, &settings) != 0) return true;  // it is no terminal
  ::cfmakeraw(&settings);
  settings.c_cflag |= CLOCAL | CREAD;
  if (!is_pseudo_terminal(file)) ::ioctl(device, TIOCEXCL);
  return ::tcsetattr(device, TCSANOW, &settings) == 0 && ::tcflush(device, TCIFLUSH) == 0;
}

// Opens the device for this process alone. If that fails, `problem` has the reason and a remedy.
ProcessFd open_device(const std::string& path, Problem& problem) {
  struct stat file {};
  if (::stat(path.c_str(), &file) != 0) {
    problem = {std::strerror(errno), errno == ENOENT};
    return {};
  }
  if (!S_ISCHR(file.st_mode)) {
    problem = {"it is no character device"};
    return {};
  }
  if (speaks_mbim(path, file)) {
    problem = {"it speaks MBIM, not QMI: switch the modem to its QMI mode, or name its QMI device"};
    return {};
  }
  // The kernel's drivers let several processes open such a device, and each would get a part of the bytes. The lock
  // admits only one of the programs that use this platform.
  const std::string user = find_other_user(file);
  ProcessFd device([&path] { return ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC); });
  if (!device) {
    problem = {describe_failure(path, errno, file)};
    return {};
  }
  if (::flock(device.get(), LOCK_EX | LOCK_NB) != 0 || !user.empty()) {
    problem = {describe_use(path, file)};
    return {};
  }
  if (!prepare_if_terminal(device.get(), file)) {
    problem = {std::string("its terminal settings cannot be changed: ") + std::strerror(errno)};
    return {};
  }
  return device;
}

}  // namespace

// --- sharing ---

// One mutex guards all state. close_if_unused() waits for a reader's end while it holds the registry's mutex; no thread
// waits while it holds the device's.
class ModemDevice : public std::enable_shared_from_this<ModemDevice> {
 public:
  // The open devices of this process.
  struct Registry {
    std::mutex mutex;  // locked before that of a device
    std::map<std::string, std::shared_ptr<ModemDevice>> devices;

    static Registry& of_this_process() { return of_process<Registry>(); }
  };

  ModemDevice(std::string path, ProcessFd device);

  void start() {
    thread_.start([self = shared_from_this()] { self->run(); });
  }

  // Makes a link and returns its number. REQUIRES: the registry is locked.
  uint64_t add(ProcessFd socket);

  SendStatus send(uint64_t link, Bytes frame);
  SendStatus flush(uint64_t link, const Deadline& deadline);
  void expect(uint64_t link, bool is_expected);
  ReadStatus receive(uint64_t link, int socket, std::span<uint8_t> room, const Deadline& deadline, size_t& received);

 private:
  using Lock = std::unique_lock<std::mutex>;

  struct Link {
    ProcessFd socket;
    std::vector<uint8_t> waiting = {};  // bytes that the link's socket does not take yet
    size_t unread = 0;                  // bytes that were sent to the socket and not received yet
    size_t dropped = 0;                 // frames that were dropped since the socket last took bytes
    bool expects = false;               // a response is awaited at the socket
    bool is_ended = false;
  };

  // The link whose thread reads the device. Its frames go to `room` until one does not fit; that one and later ones go
  // to its socket.
  struct Reader {
    uint64_t link = 0;  // 0: the device's thread reads
    std::span<uint8_t> room = {};
    size_t received = 0;
    bool is_full = false;
  };

  // A frame that the device does not take yet.
  struct Unwritten {
    uint64_t link;
    std::vector<uint8_t> bytes;
    bool has_begun;  // the device has a part of it
  };

  // A request to CTL whose response has not arrived.
  struct ControlRequest {
    uint64_t link = 0;  // 0: none
    uint8_t transaction = 0;
  };

  void run();
  bool close_if_unused(Lock& lock);
  void arm();
  void read_device();
  void write_device();
  void pass_on(const qmi::Frame& frame);
  void pass_control(const qmi::Frame& frame);
  void send_to(uint64_t number, Bytes bytes);
  void send_to_all(Bytes bytes);
  void flush(uint64_t number, Link& link);
  void erase_ended_links();
  void release_id(uint8_t service, uint8_t client);
  void watch(int operation, int descriptor, uint32_t events, uint64_t name) const;
  bool become_reader(uint64_t number, std::span<uint8_t> room);
  void end_reading();
  bool must_read_at_once() const;

  static Bytes bytes_of(const qmi::Frame& frame) {
    return {frame.message.data() - qmi::kFrameHeaderLength, qmi::kFrameHeaderLength + frame.message.size()};
  }

  const std::string path_;
  const TraceLink trace_{path_, TraceLink::Sharing::kShared};
  ProcessFd poll_;  // an epoll descriptor: the thread's wake-up, the device, and the links' sockets
  FrameworkThread thread_;

  std::mutex mutex_;
  std::condition_variable changed_;  // everything is written, the device is gone, or a reader has ended
  ProcessFd device_;                 // none once it is gone or closed
  bool is_gone_ = false;
  FrameReader frames_;
  Reader reader_;
  bool is_read_armed_ = true;  // the thread's poll of the device waits for bytes to read
  ReadingPause pause_;
  size_t receivers_ = 0;  // the threads in receive() that do not read the device
  std::deque<Unwritten> unwritten_;
  std::map<uint64_t, Link> links_;  // by number, from 1
  uint64_t last_link_ = 0;
  std::map<std::pair<uint8_t, uint8_t>, uint64_t> owners_;  // links of client ids, by service and id
  std::array<ControlRequest, UINT8_MAX + 1> control_;       // by the transaction at the device
  uint8_t last_transaction_ = 0;
};

namespace {

// The names of descriptors in the thread's poll. The name of a link is kDevice plus its number.
constexpr uint64_t kWakeUp = 0;
constexpr uint64_t kDevice = 1;

// Receives from a link's socket without waiting.
ReadStatus receive_now(int socket, std::span<uint8_t> room, size_t& received) {
  const ssize_t count = ::recv(socket, room.data(), room.size(), MSG_DONTWAIT);
  if (count < 0 && errno == EAGAIN) return ReadStatus::kTimedOut;
  if (count <= 0) return ReadStatus::kGone;
  received = static_cast<size_t>(count);
  return ReadStatus::kRead;
}

}  // namespace

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

// --- sending ---

// Each link counts its CTL transactions by itself, so the device gets numbers of our own.
SendStatus ModemDevice::send(uint64_t link, Bytes frame) {
  constexpr size_t kServiceAt = 4;
  constexpr size_t kTransactionAt = qmi::kFrameHeaderLength + 1;
  const Lock lock(mutex_);
  if (is_gone_ || !links_.contains(link)) return SendStatus::kGone;
  std::vector<uint8_t> copy;
  if (frame[kServiceAt] == qmi::kControlService) {
    copy.assign(frame.begin(), frame.end());
    last_transaction_ = last_transaction_ == UINT8_MAX ? 1 : last_transaction_ + 1;
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

// --- receiving ---

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
    const auto remaining = deadline.remaining().count();
    const timespec time = {static_cast<time_t>(remaining / 1000), static_cast<long>(remaining % 1000 * 1000000)};
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
  last_transaction_ = last_transaction_ == UINT8_MAX ? 1 : last_transaction_ + 1;
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

namespace {

DeviceLink connect(const std::string& path) {
  auto& registry = ModemDevice::Registry::of_this_process();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.devices.find(path);
  const bool is_open = found != registry.devices.end();
  Problem problem;
  ProcessFd opened, socket, other;
  if (!is_open && !(opened = open_device(path, problem))) return {{}, nullptr, 0, problem};
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
