#include "modem_device.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
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
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "environment.h"
#include "qmux_link.h"

namespace pelmar::platform {
namespace {

using Bytes = std::span<const uint8_t>;

// The most bytes that wait for a link whose reader is slow. Further frames for it are dropped.
constexpr size_t kMostWaitingBytes = size_t{1} << 20;

// --- opening ---

std::string kernel_driver(dev_t device) {
  const std::string link =
      "/sys/dev/char/" + std::to_string(major(device)) + ":" + std::to_string(minor(device)) + "/device/driver";
  char target[256];
  const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
  const std::string path(target, static_cast<size_t>(std::max<ssize_t>(length, 0)));
  return path.substr(path.rfind('/') + 1);
}

bool has_open(const std::string& process, dev_t device) {
  const std::string directory = "/proc/" + process + "/fd";
  DIR* const descriptors = ::opendir(directory.c_str());
  bool is_found = false;
  while (descriptors != nullptr && !is_found) {
    const dirent* const entry = ::readdir(descriptors);
    if (entry == nullptr) break;
    struct stat file {};
    is_found = ::stat((directory + "/" + entry->d_name).c_str(), &file) == 0 && S_ISCHR(file.st_mode) &&
               file.st_rdev == device;
  }
  if (descriptors != nullptr) ::closedir(descriptors);
  return is_found;
}

// Another process that has the device open, as far as this user may see; empty: none.
std::string find_other_user(dev_t device) {
  std::string found;
  DIR* const processes = ::opendir("/proc");
  while (processes != nullptr && found.empty()) {
    const dirent* const entry = ::readdir(processes);
    if (entry == nullptr) break;
    const std::string process = entry->d_name;
    const bool is_process = process.find_first_not_of("0123456789") == process.npos;
    if (is_process && process != std::to_string(::getpid()) && has_open(process, device)) found = process;
  }
  if (processes != nullptr) ::closedir(processes);
  if (found.empty()) return found;
  std::string name = read_small_file("/proc/" + found + "/comm");
  name.erase(std::min(name.find('\n'), name.size()));
  return "process " + found + " (" + name + ")";
}

std::string describe_use(const std::string& path, dev_t device) {
  const std::string user = find_other_user(device);
  return (user.empty() ? "another process" : user) +
         " has it open: end that process, or share the device with --modem proxy:" + path;
}

std::string describe_failure(const std::string& path, int error, dev_t device) {
  if (error == EBUSY) return describe_use(path, device);
  if (error == EACCES || error == EPERM) {
    return "this user may not open it: run as root, or add the user to the group that owns it (ls -l " + path + ")";
  }
  return std::strerror(error);
}

// Every byte passes unchanged, and the bytes that waited for an earlier user are dropped.
bool prepare_terminal(int terminal) {
  termios settings{};
  if (::tcgetattr(terminal, &settings) != 0) return false;
  ::cfmakeraw(&settings);
  settings.c_cflag |= CLOCAL | CREAD;
  return ::tcsetattr(terminal, TCSANOW, &settings) == 0 && ::ioctl(terminal, TIOCEXCL) == 0 &&
         ::tcflush(terminal, TCIOFLUSH) == 0;
}

// Opens the device for this process alone. Without a descriptor, `problem` says why and what to do.
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
  if (kernel_driver(file.st_rdev) == "cdc_mbim" || path.find("mbim") != path.npos) {
    problem = {"it speaks MBIM, not QMI: switch the modem to its QMI mode, or name its QMI device"};
    return {};
  }
  ProcessFd device([&path] { return ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC); });
  if (!device) {
    problem = {describe_failure(path, errno, file.st_rdev)};
    return {};
  }
  // The kernel's drivers let several processes open such a device, and each would get a part of the bytes.
  if (::flock(device.get(), LOCK_EX | LOCK_NB) != 0 || !find_other_user(file.st_rdev).empty()) {
    problem = {describe_use(path, file.st_rdev)};
    return {};
  }
  if (::isatty(device.get()) != 0 && !prepare_terminal(device.get())) {
    problem = {std::string("its terminal settings cannot be changed: ") + std::strerror(errno)};
    return {};
  }
  return device;
}

}  // namespace

// --- sharing ---

class ModemDevice : public std::enable_shared_from_this<ModemDevice> {
 public:
  // The open devices of this process. A child of fork() starts without any.
  struct Registry {
    const unsigned forks = fork_count();
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<ModemDevice>> devices;

    static Registry& of_this_process();
  };

  ModemDevice(std::string path, ProcessFd device) : path_(std::move(path)), device_(std::move(device)) {}

  void start() {
    thread_.start([self = shared_from_this()] { self->run(); });
  }

  // Makes a link and returns its number. REQUIRES: the registry is locked.
  uint64_t add(ProcessFd socket) {
    const std::lock_guard lock(mutex_);
    added_.emplace_back(++last_link_, std::move(socket));
    thread_.wake();
    return last_link_;
  }

  SendStatus send(uint64_t link, Bytes frame);
  SendStatus flush(const Deadline& deadline);

 private:
  struct Link {
    explicit Link(ProcessFd connected) : socket(std::move(connected)) {}

    ProcessFd socket;
    std::vector<uint8_t> waiting;  // bytes that the link's socket does not take yet
    size_t dropped = 0;            // frames that were dropped since it took some
    bool is_ended = false;
  };

  // A request to CTL whose response has not arrived.
  struct ControlRequest {
    uint64_t link = 0;  // 0: none
    uint8_t transaction = 0;
  };

  void run();
  bool take_links(bool is_there);
  bool wait();
  bool read_device();
  bool write_device();
  static bool has_closed(const Link& link);
  void pass_to_links(const qmi::Frame& frame);
  void pass_control_to_links(const qmi::Frame& frame);
  void note_owner(uint64_t number, const qmi::Frame& frame);
  static void send(Link& link, Bytes bytes);
  void send_to_all(Bytes bytes);
  static void flush(Link& link);

  static Bytes bytes_of(const qmi::Frame& frame) {
    return {frame.message.data() - qmi::kFrameHeaderLength, qmi::kFrameHeaderLength + frame.message.size()};
  }

  const std::string path_;
  FrameReader reader_;
  std::map<uint64_t, Link> links_;                          // by number, from 1
  std::map<std::pair<uint8_t, uint8_t>, uint64_t> owners_;  // of client ids, by service and id
  FrameworkThread thread_;

  // For the thread and the links' senders.
  std::mutex mutex_;
  ProcessFd device_;                            // none once the device is gone or closed
  std::deque<std::vector<uint8_t>> unwritten_;  // frames that the device does not take yet
  std::condition_variable written_;
  std::vector<std::pair<uint64_t, ProcessFd>> added_;  // links that the thread has not taken over
  uint64_t last_link_ = 0;
  std::array<ControlRequest, UINT8_MAX + 1> control_;  // by the transaction at the device
  uint8_t last_transaction_ = 0;
};

ModemDevice::Registry& ModemDevice::Registry::of_this_process() {
  constinit static std::atomic<Registry*> current{nullptr};
  Registry* registry = current.load();
  if (registry != nullptr && registry->forks == fork_count()) return *registry;
  auto* const own = new Registry;  // never destroyed: threads may connect until the process ends
  if (current.compare_exchange_strong(registry, own)) return *own;
  delete own;
  return *registry;
}

void ModemDevice::run() {
  bool is_there = true;
  while (take_links(is_there)) {
    is_there = wait();
    std::erase_if(links_, [](const auto& entry) { return entry.second.is_ended; });
  }
}

// Takes over new links. Closes the device and returns false if there are no links or the device is gone.
bool ModemDevice::take_links(bool is_there) {
  const auto take_added = [this] {
    for (auto& [number, socket] : added_) links_.emplace(number, std::move(socket));
    added_.clear();
    return !links_.empty();
  };
  {
    const std::lock_guard lock(mutex_);
    if (take_added() && is_there) return true;
  }
  Registry& registry = Registry::of_this_process();
  const std::lock_guard registry_lock(registry.mutex);
  const std::lock_guard lock(mutex_);
  if (take_added() && is_there) return true;
  links_.clear();  // their readers see the end
  registry.devices.erase(path_);
  device_.reset();
  written_.notify_all();
  thread_.detach();
  return false;
}

// Waits for bytes and passes them on. False once the device is gone.
bool ModemDevice::wait() {
  bool has_unwritten = false;
  {
    const std::lock_guard lock(mutex_);
    has_unwritten = !unwritten_.empty();
  }
  std::vector<pollfd> ready = {{thread_.descriptor(), POLLIN, 0},
                               {device_.get(), static_cast<short>(has_unwritten ? POLLIN | POLLOUT : POLLIN), 0}};
  for (const auto& [number, link] : links_) {
    ready.push_back({link.socket.get(), static_cast<short>(link.waiting.empty() ? POLLIN : POLLIN | POLLOUT), 0});
  }
  if (::poll(ready.data(), ready.size(), -1) <= 0) return true;
  if (ready[0].revents != 0) thread_.acknowledge();
  size_t place = 2;
  for (auto& [number, link] : links_) {
    const short events = ready[place++].revents;
    if ((events & POLLOUT) != 0) flush(link);
    if ((events & ~POLLOUT) != 0) link.is_ended = has_closed(link);
  }
  if ((ready[1].revents & POLLOUT) != 0 && !write_device()) return false;
  return (ready[1].revents & ~POLLOUT) == 0 || read_device();
}

bool ModemDevice::read_device() {
  uint8_t* const space = reader_.space();
  const ssize_t count = ::read(device_.get(), space, reader_.room());
  if (count <= 0) return count < 0 && (errno == EAGAIN || errno == EINTR);
  reader_.add(static_cast<size_t>(count));
  qmi::Frame frame;
  while (reader_.next(frame)) {
    if (frame.service == qmi::kControlService) {
      pass_control_to_links(frame);
    } else {
      pass_to_links(frame);
    }
  }
  if (reader_.is_broken()) report_problem(path_ + " sent bytes that are no QMUX frame: is it the modem's QMI device?");
  return !reader_.is_broken();
}

// One write for each frame: a USB driver takes each write for a message of its own.
bool ModemDevice::write_device() {
  const std::lock_guard lock(mutex_);
  while (!unwritten_.empty()) {
    std::vector<uint8_t>& frame = unwritten_.front();
    const ssize_t count = ::write(device_.get(), frame.data(), frame.size());
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    frame.erase(frame.begin(), frame.begin() + count);
    if (frame.empty()) unwritten_.pop_front();
  }
  written_.notify_all();
  return true;
}

// Each link counts its CTL transactions by itself, so the device gets numbers of our own.
SendStatus ModemDevice::send(uint64_t link, Bytes frame) {
  constexpr size_t kServiceAt = 4;
  constexpr size_t kTransactionAt = qmi::kFrameHeaderLength + 1;
  const std::lock_guard lock(mutex_);
  if (!device_) return SendStatus::kGone;
  std::vector<uint8_t> copy;
  if (frame.size() > kTransactionAt && frame[kServiceAt] == qmi::kControlService) {
    copy.assign(frame.begin(), frame.end());
    last_transaction_ = last_transaction_ == UINT8_MAX ? 1 : last_transaction_ + 1;
    control_[last_transaction_] = {link, std::exchange(copy[kTransactionAt], last_transaction_)};
    frame = copy;
  }
  ssize_t count = 0;
  if (unwritten_.empty()) {
    count = ::write(device_.get(), frame.data(), frame.size());
    if (count == static_cast<ssize_t>(frame.size())) return SendStatus::kSent;
    if (count < 0 && errno != EAGAIN && errno != EINTR) return SendStatus::kGone;
  }
  unwritten_.emplace_back(frame.begin() + std::max<ssize_t>(count, 0), frame.end());
  thread_.wake();
  return SendStatus::kBlocked;
}

SendStatus ModemDevice::flush(const Deadline& deadline) {
  std::unique_lock lock(mutex_);
  const auto has_ended = [this] { return unwritten_.empty() || !device_; };
  if (deadline.is_none()) {
    written_.wait(lock, has_ended);
  } else if (!written_.wait_until(lock, deadline.at(), has_ended)) {
    return SendStatus::kTimedOut;
  }
  return device_ ? SendStatus::kSent : SendStatus::kGone;
}

bool ModemDevice::has_closed(const Link& link) {
  uint8_t byte;
  return ::recv(link.socket.get(), &byte, sizeof byte, MSG_DONTWAIT) >= 0 || (errno != EAGAIN && errno != EINTR);
}

void ModemDevice::pass_to_links(const qmi::Frame& frame) {
  if (frame.client == qmi::kAllClients) return send_to_all(bytes_of(frame));
  const auto owner = owners_.find({frame.service, frame.client});
  if (owner == owners_.end()) return;
  const auto link = links_.find(owner->second);
  if (link != links_.end()) send(link->second, bytes_of(frame));
}

void ModemDevice::pass_control_to_links(const qmi::Frame& frame) {
  const auto message = qmi::read_message(frame);
  if (!message) return;
  if (message->kind == qmi::MessageKind::kIndication) return send_to_all(bytes_of(frame));
  ControlRequest request;
  {
    const std::lock_guard lock(mutex_);
    request = std::exchange(control_[message->transaction], {});
  }
  const auto link = links_.find(request.link);
  if (link == links_.end()) return;
  if (message->id == static_cast<uint16_t>(ControlMessage::kAllocateClientId)) note_owner(request.link, frame);
  const Bytes bytes = bytes_of(frame);
  std::vector<uint8_t> copy(bytes.begin(), bytes.end());
  copy[qmi::kFrameHeaderLength + 1] = request.transaction;
  send(link->second, copy);
}

void ModemDevice::note_owner(uint64_t number, const qmi::Frame& frame) {
  constexpr uint8_t kIdTlv = 0x01;
  const auto id = qmi::find_tlv(qmi::read_message(frame)->tlvs, kIdTlv);
  if (id && id->size() >= 2) owners_[{(*id)[0], (*id)[1]}] = number;
}

// A frame is sent whole or dropped, so that the link's bytes stay frames.
void ModemDevice::send(Link& link, Bytes bytes) {
  if (link.waiting.size() + bytes.size() > kMostWaitingBytes) {
    ++link.dropped;
    return;
  }
  link.waiting.insert(link.waiting.end(), bytes.begin(), bytes.end());
  flush(link);
}

void ModemDevice::send_to_all(Bytes bytes) {
  for (auto& [number, link] : links_) send(link, bytes);
}

void ModemDevice::flush(Link& link) {
  const ssize_t count =
      ::send(link.socket.get(), link.waiting.data(), link.waiting.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (count <= 0) return;
  link.waiting.erase(link.waiting.begin(), link.waiting.begin() + count);
  if (link.dropped == 0 || !link.waiting.empty()) return;
  ::syslog(LOG_WARNING, "A client's callbacks are too slow, %zu messages of the modem's device were dropped",
           std::exchange(link.dropped, 0));
}

DeviceLink connect_device(const std::string& path) {
  DeviceLink link;
  ProcessFd other;
  if (!ProcessFd::make_socket_pair(link.socket, other)) return {{}, nullptr, 0, {std::strerror(errno)}};
  auto& registry = ModemDevice::Registry::of_this_process();
  const std::lock_guard lock(registry.mutex);
  const auto found = registry.devices.find(path);
  if (found != registry.devices.end()) {
    link.device = found->second;
    link.number = link.device->add(std::move(other));
    return link;
  }
  ProcessFd opened = open_device(path, link.problem);
  if (!opened) {
    link.socket.reset();
    return link;
  }
  link.device = std::make_shared<ModemDevice>(path, std::move(opened));
  link.number = link.device->add(std::move(other));
  link.device->start();
  registry.devices.emplace(path, link.device);
  return link;
}

SendStatus send_to_device(const DeviceLink& link, std::span<const uint8_t> frame) {
  return link.device->send(link.number, frame);
}

SendStatus flush_device(const DeviceLink& link, const Deadline& deadline) {
  return link.device->flush(deadline);
}

}  // namespace pelmar::platform
