#include "device_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "environment.h"

namespace pelmar::platform {
namespace {

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

}  // namespace

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

}  // namespace pelmar::platform
