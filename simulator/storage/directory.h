// Files and directories below an open directory, reached without following any symbolic link.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "qmi/service.h"
#include "unique_fd.h"

namespace pelmar::sim {

// The QMI error for a failed file operation.
QmiError error_of_errno(int error);

// name: one component, no path. No descriptor, with errno, where the directory cannot be opened.
UniqueFd open_directory(int parent, const char* name);
UniqueFd open_or_create_directory(int parent, const char* name);

// The same, creates it where it is missing; throws std::runtime_error for a failure.
UniqueFd require_directory(int parent, const char* name);

// Throws std::runtime_error that names the directory of the storage that cannot be read, and the reason by errno.
[[noreturn]] void refuse_directory(const std::string& path);

// Nothing where the entry is no regular file, cannot be read or has more than `limit` bytes.
std::optional<std::vector<uint8_t>> read_file(int directory, const char* name, size_t limit);

// Puts the bytes into a file in `scratch`, then moves it to its place at once: a reader of the place sees the old
// content or the new one, also after a crash. Both directories are on one file system.
QmiError replace_file(int scratch, int directory, const char* name, std::span<const uint8_t> bytes);

struct Entry {
  enum class Kind { kFile, kDirectory, kOther };
  std::string name;
  Kind kind;  // of the entry itself: a symbolic link is neither a file nor a directory
};

// Prints to standard error that a stored file is not used.
void warn_ignored(const std::string& path, const char* why);

// The entries, sorted by name. Throws std::runtime_error that names the path where the directory or the kind of an
// entry cannot be read: the modem must not start as if its entries did not exist.
std::vector<Entry> list_directory(int directory, const std::string& path);

}  // namespace pelmar::sim
