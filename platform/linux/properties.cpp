// System properties, shared by all processes of a user: a directory with one small file a property, which holds the
// value and nothing else.
//
//   persist/NAME    names that begin with "persist.": kept
//   BOOT_ID/NAME    all others: BOOT_ID is the kernel's number of this boot, so what an earlier boot left is not seen
//
// A value is written to a file of its own and then given its name, so a reader sees the old value or the new one, never
// a part. The directory is PELMAR_PROPERTY_DIR, else $XDG_STATE_HOME/pelmar/properties, else the same under
// ~/.local/state, else one of the user's own among the temporary files.
#include "cutils/properties.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

#include "environment.h"
#include "guarded.h"
#include "platform_export.h"
#include "unique_fd.h"

namespace pelmar::platform {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxNameLength = 200;  // with the suffix of a temporary file, what file systems take
constexpr size_t kMaxValueLength = PROPERTY_VALUE_MAX - 1;

// The name becomes a file's name: it must stay in its directory, and names that begin with a dot are temporary files.
bool is_good_name(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameLength && name[0] != '.' &&
         std::all_of(name.begin(), name.end(), [](unsigned char c) { return c > ' ' && c < 0x7F && c != '/'; });
}

fs::path property_directory() {
  if (const std::string directory = environment("PELMAR_PROPERTY_DIR"); !directory.empty()) return directory;
  const fs::path below = fs::path("pelmar") / "properties";
  if (const std::string state = environment("XDG_STATE_HOME"); !state.empty()) return state / below;
  if (const std::string home = environment("HOME"); !home.empty()) return home / fs::path(".local/state") / below;
  std::error_code error;
  fs::path temporary = fs::temp_directory_path(error);
  if (error) temporary = "/tmp";
  return temporary / ("pelmar-" + std::to_string(::getuid())) / "properties";
}

std::string boot_id() {
  std::string id;
  std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
  return is_good_name(id) ? id : "this-boot";
}

fs::path directory_of(std::string_view name) {
  static const auto& boot = *new std::string(boot_id());  // threads may ask until the process is gone
  return property_directory() / (name.starts_with("persist.") ? "persist" : boot);
}

// A file with more than a value, or with anything that no value has, counts as no property.
bool read_value(const fs::path& path, std::string& value) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!file) return false;
  char bytes[kMaxValueLength + 1];
  const ssize_t length = ::read(file.get(), bytes, sizeof bytes);
  if (length < 0 || static_cast<size_t>(length) > kMaxValueLength) return false;
  value.assign(bytes, static_cast<size_t>(length));
  return value.find('\0') == std::string::npos;
}

bool write_whole(int file, std::string_view value) {
  while (!value.empty()) {
    const ssize_t written = ::write(file, value.data(), value.size());
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) value.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

fs::path temporary_path(const fs::path& path) {
  static std::atomic<unsigned> count{0};
  std::string name(1, '.');
  name.append(path.filename()).append(1, '.').append(std::to_string(::getpid()));
  name.append(1, '.').append(std::to_string(count.fetch_add(1)));
  return path.parent_path() / name;
}

// A property that is set once is linked to its name, which only one of several writers can do.
bool write_value(const fs::path& path, std::string_view value, bool once) {
  std::error_code error;
  fs::create_directories(path.parent_path(), error);
  const fs::path temporary = temporary_path(path);
  const int file = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file < 0) return false;
  bool is_done = write_whole(file, value);
  is_done = ::close(file) == 0 && is_done;
  if (is_done) {
    is_done = (once ? ::link(temporary.c_str(), path.c_str()) : ::rename(temporary.c_str(), path.c_str())) == 0;
  }
  if (once || !is_done) ::unlink(temporary.c_str());
  return is_done;
}

}  // namespace
}  // namespace pelmar::platform

using namespace pelmar::platform;

extern "C" {

PELMAR_PLATFORM_EXPORT int property_get(const char* name, char* value, const char* default_value) {
  std::string stored;
  const bool is_set = name != nullptr && is_good_name(name) &&
                      guarded(false, [&] { return read_value(directory_of(name) / name, stored); }) && !stored.empty();
  std::string_view text = stored;
  if (!is_set) text = std::string_view(default_value != nullptr ? default_value : "").substr(0, kMaxValueLength);
  std::memmove(value, text.data(), text.size());  // the default may stand where the value goes
  value[text.size()] = '\0';
  return static_cast<int>(text.size());
}

PELMAR_PLATFORM_EXPORT int property_set(const char* name, const char* value) {
  const std::string_view text = value != nullptr ? value : "";
  if (name == nullptr || !is_good_name(name) || text.size() > kMaxValueLength) return -1;
  const bool once = std::string_view(name).starts_with("ro.");
  return guarded(false, [&] { return write_value(directory_of(name) / name, text, once); }) ? 0 : -1;
}

}  // extern "C"
