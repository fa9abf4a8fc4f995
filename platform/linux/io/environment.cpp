#include "environment.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

namespace pelmar {
namespace {

constexpr int kOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool belongs_to_user(const struct stat& file) {
  return S_ISDIR(file.st_mode) && file.st_uid == ::geteuid();
}

// The home of a daemon's account may not exist, or belong to all users, such as /.
std::string home_of_user_database() {
  std::vector<char> space(size_t{16} << 10);
  passwd entry{};
  passwd* found = nullptr;
  struct stat home {};
  ::getpwuid_r(::geteuid(), &entry, space.data(), space.size(), &found);  // after a failure `found` is null
  if (found == nullptr || entry.pw_dir[0] != '/' || ::stat(entry.pw_dir, &home) != 0) return "";
  return belongs_to_user(home) ? entry.pw_dir : "";
}

std::string private_directory() {
  std::string temporary = environment_path("TMPDIR");
  if (temporary.empty()) temporary = "/tmp";
  return temporary + "/pelmar-" + std::to_string(::geteuid());
}

// Opens a directory that no other user can have prepared, list or change: it is no link, belongs to this user and has
// mode 0700. Every user may be able to write to its parent. On failure there is no descriptor, and errno is set;
// EPERM: the directory belongs to another user or is open to others.
UniqueFd open_private_directory(const std::string& path, IfMissing if_missing) {
  if (if_missing == IfMissing::kMake && ::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return {};
  UniqueFd directory(::open(path.c_str(), kOpenFlags | O_NOFOLLOW));
  struct stat found {};
  if (!directory || ::fstat(directory.get(), &found) != 0) return {};
  if (belongs_to_user(found) && (found.st_mode & 0077) == 0) return directory;
  errno = EPERM;
  return {};
}

void warn_once(const std::string& path, int error) {
  static std::atomic<bool> has_warned{false};
  if (has_warned.exchange(true)) return;
  ::syslog(LOG_WARNING, "Cannot store files in %s: %s. Set HOME or XDG_STATE_HOME to a directory of this user.",
           path.c_str(), error == EPERM ? "another user owns it, or it is open to others" : std::strerror(error));
}

}  // namespace

std::string environment(const char* name, const char* otherwise) {
  const char* const value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : otherwise;
}

std::string environment_path(const char* name) {
  std::string path = environment(name);
  return path.starts_with('/') ? path : "";
}

std::string read_small_file(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char bytes[1024];
  const ssize_t length = file ? ::read(file.get(), bytes, sizeof bytes) : -1;
  return length > 0 ? std::string(bytes, static_cast<size_t>(length)) : "";
}

std::string process_name(pid_t process) {
  std::string name = read_small_file("/proc/" + std::to_string(process) + "/comm");
  if (name.ends_with('\n')) name.pop_back();
  return name;
}

std::string describe_process(pid_t process) {
  return process == 0 ? "" : process_name(process) + '[' + std::to_string(process) + ']';
}

std::string boot_id() {
  std::string id = read_small_file("/proc/sys/kernel/random/boot_id");
  id.erase(std::min(id.find('\n'), id.size()));
  return id;
}

UniqueFd open_directory(const std::string& path, IfMissing if_missing) {
  std::error_code error;
  if (if_missing == IfMissing::kMake) std::filesystem::create_directories(path, error);
  UniqueFd directory(::open(path.c_str(), kOpenFlags));
  if (!directory && error) errno = error.value();
  return directory;
}

UniqueFd open_directory_at(int parent, const std::string& name, IfMissing if_missing) {
  if (if_missing == IfMissing::kMake && ::mkdirat(parent, name.c_str(), 0777) != 0 && errno != EEXIST) return {};
  return UniqueFd(::openat(parent, name.c_str(), kOpenFlags));
}

std::string user_state_directory() {
  if (std::string state = environment_path("XDG_STATE_HOME"); !state.empty()) return state;
  std::string home = environment_path("HOME");
  if (home.empty()) home = home_of_user_database();
  return home.empty() ? "" : home + "/.local/state";
}

UniqueFd open_state_directory(const std::string& name, IfMissing if_missing) {
  UniqueFd directory;
  std::string path = user_state_directory();
  if (!path.empty()) {
    path += "/pelmar/" + name;
    directory = open_directory(path, if_missing);
  } else {
    path = private_directory();
    const UniqueFd above = open_private_directory(path, if_missing);
    if (above) directory = open_directory_at(above.get(), name, if_missing);
  }
  if (!directory && !(errno == ENOENT && if_missing == IfMissing::kLeave)) warn_once(path, errno);
  return directory;
}

}  // namespace pelmar
