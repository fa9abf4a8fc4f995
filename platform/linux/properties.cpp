// System properties, shared by all processes of a user: a directory with one small file a property, which holds the
// value and nothing else.
//
//   persist/NAME    names that begin with "persist.": kept
//   BOOT_ID/NAME    all others: BOOT_ID is the kernel's number of this boot, so what an earlier boot left is not seen
//
// A value is written to a file of its own and then given its name, so a reader sees the old value or the new one, never
// a part. The directory is PELMAR_PROPERTY_DIR, else pelmar/properties in the user's state directory, else one among
// the temporary files that only this user can read and write. Where there is none, properties have their defaults and
// none can be set.
#include "cutils/properties.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include "environment.h"
#include "guarded.h"
#include "platform_export.h"
#include "state_directory.h"
#include "unique_fd.h"

namespace pelmar::platform {
namespace {

constexpr size_t kMaxNameLength = 200;  // with the suffix of a temporary file, what file systems take
constexpr size_t kMaxValueLength = PROPERTY_VALUE_MAX - 1;

// The name becomes a file's name: it must stay in its directory, and names that begin with a dot are temporary files.
bool is_good_name(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameLength && name[0] != '.' &&
         std::all_of(name.begin(), name.end(), [](unsigned char c) { return c > ' ' && c < 0x7F && c != '/'; });
}

UniqueFd open_properties(IfMissing if_missing) {
  const std::string named = environment("PELMAR_PROPERTY_DIR");
  return named.empty() ? open_state_directory("properties", if_missing) : open_directory(named, if_missing);
}

std::string boot_id() {
  std::string id;
  std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
  return is_good_name(id) ? id : "this-boot";
}

// The directory with the property's file. No descriptor where there is none.
UniqueFd open_directory_of(std::string_view name, IfMissing if_missing) {
  static const auto& boot = *new std::string(boot_id());  // threads may ask until the process is gone
  const UniqueFd all = open_properties(if_missing);
  if (!all) return {};
  return open_directory_at(all.get(), name.starts_with("persist.") ? "persist" : boot, if_missing);
}

// A file with more than a value, or with anything that no value has, counts as no property.
bool read_value(const char* name, std::string& value) {
  const UniqueFd directory = open_directory_of(name, IfMissing::kLeave);
  if (!directory) return false;
  const UniqueFd file(::openat(directory.get(), name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
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

// Random, since processes in different namespaces can have the same number. Empty where the kernel gives no bytes.
std::string temporary_name(const char* name) {
  uint64_t random = 0;
  if (::getrandom(&random, sizeof random, 0) != sizeof random) return "";
  return '.' + std::string(name) + '.' + std::to_string(random);
}

// A property that is set once is linked to its name, which only one of several writers can do.
bool write_value(const char* name, std::string_view value, bool once) {
  const UniqueFd directory = open_directory_of(name, IfMissing::kMake);
  const std::string temporary = temporary_name(name);
  if (!directory || temporary.empty()) return false;
  const int at = directory.get();
  const int file = ::openat(at, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (file < 0) return false;
  bool is_done = write_whole(file, value);
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
  const bool is_set = name != nullptr && is_good_name(name) &&
                      guarded(false, [&] { return read_value(name, stored); }) && !stored.empty();
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
  return guarded(false, [&] { return write_value(name, text, once); }) ? 0 : -1;
}

}  // extern "C"
