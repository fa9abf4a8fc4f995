// System properties, shared by all processes of a user. Each property is a small file that holds its value alone.
//
//   persist/NAME    names that begin with "persist.", which outlive the boot
//   BOOT_ID/NAME    all other names; BOOT_ID is the kernel's id of this boot, so those of earlier boots are not found
//
// A value is written to a temporary file, which then gets the property's name, so that a reader sees the old value or
// the new one, never a part. The directory is PELMAR_PROPERTY_DIR, else pelmar/properties in the user's state
// directory, else one among the temporary files that only this user can read and write. Without a directory every
// property has its default, and none can be set.
#include "cutils/properties.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "environment.h"
#include "platform_export.h"
#include "unique_fd.h"

namespace pelmar::platform {
namespace {

constexpr size_t kMaxNameLength = 200;  // file systems take it with the suffix of a temporary file
constexpr size_t kMaxValueLength = PROPERTY_VALUE_MAX - 1;

// The name is used as a file's name: it must not leave the directory, and a leading dot marks a temporary file.
bool is_good_name(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameLength && name[0] != '.' &&
         std::all_of(name.begin(), name.end(), [](unsigned char c) { return c > ' ' && c < 0x7F && c != '/'; });
}

UniqueFd open_properties(IfMissing if_missing) {
  const std::string named = environment("PELMAR_PROPERTY_DIR");
  return named.empty() ? open_state_directory("properties", if_missing) : open_directory(named, if_missing);
}

std::string name_of_boot() {
  const std::string id = boot_id();
  return is_good_name(id) ? id : "this-boot";
}

// Opens the directory of the property's file. No descriptor if that fails.
UniqueFd open_directory_of(std::string_view name, IfMissing if_missing) {
  static const auto& boot =
      *new std::string(name_of_boot());  // never destroyed: threads may run until the process ends
  const UniqueFd all = open_properties(if_missing);
  if (!all) return {};
  return open_directory_at(all.get(), name.starts_with("persist.") ? "persist" : boot, if_missing);
}

// Empty if there is no property: an empty value counts as none, and so does a file that is longer than a value or
// contains a zero byte.
std::string read_value(const char* name) {
  const UniqueFd directory = open_directory_of(name, IfMissing::kLeave);
  if (!directory) return "";
  const UniqueFd file(::openat(directory.get(), name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!file) return "";
  char bytes[kMaxValueLength + 1];
  const ssize_t length = ::read(file.get(), bytes, sizeof bytes);
  if (length < 0 || static_cast<size_t>(length) > kMaxValueLength) return "";
  const std::string value(bytes, static_cast<size_t>(length));
  return value.find('\0') == std::string::npos ? value : "";
}

bool write_all(int file, std::string_view value) {
  while (!value.empty()) {
    const ssize_t written = ::write(file, value.data(), value.size());
    if (written < 0 && errno != EINTR) return false;
    if (written > 0) value.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

// The name is random, because processes of different pid namespaces may have the same number. Empty if the kernel gives
// no random bytes.
std::string temporary_name(const char* name) {
  uint64_t random = 0;
  if (::getrandom(&random, sizeof random, 0) != sizeof random) return "";
  return '.' + std::string(name) + '.' + std::to_string(random);
}

// A property that can be set once is linked to its name, because only one of several writers succeeds in that.
bool write_value(const char* name, std::string_view value, bool once) {
  const UniqueFd directory = open_directory_of(name, IfMissing::kMake);
  const std::string temporary = temporary_name(name);
  const int at = directory.get();  // openat() refuses -1, and an empty name
  const int file = ::openat(at, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (file < 0) return false;
  bool is_done = write_all(file, value);
  is_done = ::close(file) == 0 && is_done;
  if (is_done) {
    is_done = (once ? ::linkat(at, temporary.c_str(), at, name, 0) : ::renameat(at, temporary.c_str(), at, name)) == 0;
  }
  if (once || !is_done) ::unlinkat(at, temporary.c_str(), 0);
  return is_done;
}

}  // namespace
}  // namespace pelmar::platform

using namespace pelmar::platform;

extern "C" {

PELMAR_PLATFORM_EXPORT int property_get(const char* name, char* value, const char* default_value) {
  std::string stored;
  if (name != nullptr && is_good_name(name)) stored = guarded(std::string(), [&] { return read_value(name); });
  std::string_view text = stored;
  if (text.empty()) text = std::string_view(default_value != nullptr ? default_value : "").substr(0, kMaxValueLength);
  std::memmove(value, text.data(), text.size());  // the default may be in the value's buffer
  value[text.size()] = '\0';
  return static_cast<int>(text.size());
}

PELMAR_PLATFORM_EXPORT int property_set(const char* name, const char* value) {
  const std::string_view text = value != nullptr ? value : "";
  if (name == nullptr || !is_good_name(name) || text.size() > kMaxValueLength) return -1;
  const bool once = std::string_view(name).starts_with("ro.");
  return guarded(false, [&] { return write_value(name, text, once); }) ? 0 : -1;
}

}  // extern "C"
