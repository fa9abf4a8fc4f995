#include "storage/directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "printable_text.h"

namespace pelmar::sim {

namespace {

constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kFileMode = 0600;
constexpr const char* kScratchName = ".being-written";

bool write_all(int fd, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes = bytes.subspan(static_cast<size_t>(count));
  }
  return true;
}

}  // namespace

QmiError error_of_errno(int error) {
  switch (error) {
    case ENOENT:
      return QMI_ERR_NO_ENTRY_V01;
    case ENOTDIR:
    case EISDIR:
    case ELOOP:
    case EEXIST:
    case ENOTEMPTY:
    case ENAMETOOLONG:
      return QMI_ERR_INVALID_ARG_V01;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:  // the process may write no larger file
      return QMI_ERR_DEVICE_STORAGE_FULL_V01;
    default:
      return QMI_ERR_INTERNAL_V01;
  }
}

UniqueFd open_directory(int parent, const char* name) {
  return UniqueFd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

UniqueFd open_or_create_directory(int parent, const char* name) {
  if (mkdirat(parent, name, kDirectoryMode) != 0 && errno != EEXIST) return {};
  return open_directory(parent, name);
}

UniqueFd require_directory(int parent, const char* name) {
  UniqueFd fd = open_or_create_directory(parent, name);
  if (!fd) refuse_directory(name);
  return fd;
}

std::optional<std::vector<uint8_t>> read_file(int directory, const char* name, size_t limit) {
  const UniqueFd fd(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat file {};
  if (!fd || fstat(fd.get(), &file) != 0 || !S_ISREG(file.st_mode)) return std::nullopt;
  if (static_cast<uint64_t>(file.st_size) > limit) return std::nullopt;
  std::vector<uint8_t> bytes(static_cast<size_t>(file.st_size));
  const ssize_t count = read(fd.get(), bytes.data(), bytes.size());
  if (count != static_cast<ssize_t>(bytes.size())) return std::nullopt;
  return bytes;
}

QmiError replace_file(int scratch, int directory, const char* name, std::span<const uint8_t> bytes) {
  UniqueFd fd(openat(scratch, kScratchName, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!fd) return error_of_errno(errno);
  const bool written = write_all(fd.get(), bytes);
  if (written && renameat(scratch, kScratchName, directory, name) == 0) return QMI_ERR_NONE_V01;
  const QmiError error = error_of_errno(errno);
  unlinkat(scratch, kScratchName, 0);
  return error;
}

void refuse_directory(const std::string& path) {
  throw std::runtime_error("cannot open " + printable_text(path) + " in the storage: " + strerror(errno));
}

std::vector<Entry> list_directory(int directory, const std::string& path) {
  std::vector<Entry> entries;
  UniqueFd fd = open_directory(directory, ".");
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(fd ? fdopendir(fd.get()) : nullptr, closedir);
  if (!stream) refuse_directory(path);
  fd.release();
  for (errno = 0; const dirent* entry = readdir(stream.get()); errno = 0) {
    const std::string_view name = entry->d_name;
    struct stat file {};
    if (name == "." || name == "..") continue;
    if (fstatat(directory, entry->d_name, &file, AT_SYMLINK_NOFOLLOW) != 0)
      refuse_directory(path + '/' + entry->d_name);
    using enum Entry::Kind;
    entries.push_back({entry->d_name, S_ISREG(file.st_mode) ? kFile : S_ISDIR(file.st_mode) ? kDirectory : kOther});
  }
  if (errno != 0) refuse_directory(path);
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
  return entries;
}

void warn_ignored(const std::string& path, const char* why) {
  fprintf(stderr, "modem_sim: ignoring %s: %s\n", printable_text(path).c_str(), why);
}

}  // namespace pelmar::sim
