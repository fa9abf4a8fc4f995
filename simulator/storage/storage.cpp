#include "storage/storage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "io/text.h"
#include "storage/directory.h"

namespace pelmar::sim {

namespace {

constexpr size_t kMaxItemFileBytes = 4096;  // hexadecimal text, with space for white space that a user has added

// A file's path: its directories, opened, and the names of all components; the last one is the file's.
struct FilePath {
  std::vector<UniqueFd> directories;
  std::vector<std::string> components;

  int parent(int top) const { return directories.empty() ? top : directories.back().get(); }
};

// Opens the directories one component at a time.
QmiError walk(int top, const std::string& path, bool create, FilePath& file) {
  size_t start = 0;
  for (size_t end = path.find('/'); end != std::string::npos; start = end + 1, end = path.find('/', start)) {
    file.components.push_back(path.substr(start, end - start));
    const char* component = file.components.back().c_str();
    UniqueFd next =
        create ? open_or_create_directory(file.parent(top), component) : open_directory(file.parent(top), component);
    if (!next) return error_of_errno(errno);
    file.directories.push_back(std::move(next));
  }
  file.components.push_back(path.substr(start));
  return QMI_ERR_NONE_V01;
}

// Removes directories that became empty, so that their names are free for files.
void prune(int top, FilePath& file) {
  while (!file.directories.empty()) {
    file.directories.pop_back();
    if (unlinkat(file.parent(top), file.components[file.directories.size()].c_str(), AT_REMOVEDIR) != 0) return;
  }
}

std::string directory_name(uint16_t qualifier, uint8_t index) {
  return std::to_string(qualifier) + '.' + std::to_string(index);
}

bool is_qualifier_and_index(const std::string& name) {
  unsigned qualifier = 0;
  unsigned index = 0;
  return sscanf(name.c_str(), "%u.%u", &qualifier, &index) == 2 &&
         directory_name(static_cast<uint16_t>(qualifier), static_cast<uint8_t>(index)) == name;
}

UniqueFd open_root(const std::string& directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  UniqueFd root(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) {
    throw std::runtime_error("cannot use storage directory '" + directory + "': " + strerror(errno) +
                             "; name a directory that can be written to");
  }
  if (flock(root.get(), LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("storage directory '" + directory +
                             "' is in use by another modem_sim: end it or name another directory");
  }
  return root;
}

}  // namespace

// --- any store ---

Store::Store(int root, const char* directory, size_t& free_entries)
    : root_(root), free_entries_(free_entries), directory_(require_directory(root, directory)) {}

void Store::load(const std::string& path, std::vector<uint8_t> bytes) {
  entries_.emplace(path, std::move(bytes));
  if (free_entries_ > 0) --free_entries_;
}

QmiError Store::read(const std::string& path, std::span<const uint8_t>& bytes) const {
  if (path.empty()) return QMI_ERR_INVALID_ARG_V01;
  const auto entry = entries_.find(path);
  if (entry == entries_.end()) return QMI_ERR_NO_ENTRY_V01;
  bytes = entry->second;
  return QMI_ERR_NONE_V01;
}

QmiError Store::write(const std::string& path, std::span<const uint8_t> bytes, std::span<const uint8_t> content) {
  if (path.empty()) return QMI_ERR_INVALID_ARG_V01;
  const bool is_new = !entries_.contains(path);
  if (is_new && free_entries_ == 0) return QMI_ERR_DEVICE_STORAGE_FULL_V01;
  FilePath file;
  QmiError error = walk(directory(), path, true, file);
  if (error == QMI_ERR_NONE_V01)
    error = replace_file(root_, file.parent(directory()), file.components.back().c_str(), content);
  if (error != QMI_ERR_NONE_V01) {
    prune(directory(), file);
    return error;
  }
  entries_[path].assign(bytes.begin(), bytes.end());
  if (is_new) --free_entries_;
  return QMI_ERR_NONE_V01;
}

QmiError Store::remove(const std::string& path) {
  if (path.empty()) return QMI_ERR_INVALID_ARG_V01;
  const auto entry = entries_.find(path);
  if (entry == entries_.end()) return QMI_ERR_NO_ENTRY_V01;
  FilePath file;
  const QmiError error = walk(directory(), path, false, file);
  if (error != QMI_ERR_NONE_V01 && error != QMI_ERR_NO_ENTRY_V01) return error;
  if (error == QMI_ERR_NONE_V01) {
    if (unlinkat(file.parent(directory()), file.components.back().c_str(), 0) != 0 && errno != ENOENT) {
      return error_of_errno(errno);
    }
    prune(directory(), file);
  }
  entries_.erase(entry);
  ++free_entries_;
  return QMI_ERR_NONE_V01;
}

// --- items ---

ItemStore::ItemStore(int root, const char* directory_name, int numbers, size_t& free_entries)
    : Store(root, directory_name, free_entries), numbers_(numbers) {
  for (const Entry& entry : list_directory(directory(), directory_name)) {
    if (entry.kind == Entry::Kind::kOther) continue;
    const std::string path = std::string(directory_name) + '/' + entry.name;
    if (entry.kind == Entry::Kind::kDirectory || !is_name_of_item(entry.name)) {
      warn_ignored(path, "its name is no item's");
      continue;
    }
    const auto text = read_file(directory(), entry.name.c_str(), kMaxItemFileBytes);
    auto bytes = text ? parse_hex(text_of(*text)) : std::nullopt;
    if (!bytes || bytes->size() > kMaxBytes) {
      warn_ignored(path, "it does not hold at most 256 bytes in hexadecimal");
      continue;
    }
    load(entry.name, std::move(*bytes));
  }
}

std::string ItemStore::name_of(const Key& key) const {
  std::string name = std::to_string(key.item);
  if (numbers_ > 1) name += '.' + std::to_string(key.qualifier);
  if (numbers_ > 2) name += '.' + std::to_string(key.index);
  return name;
}

bool ItemStore::is_name_of_item(const std::string& name) const {
  unsigned item = 0;
  unsigned qualifier = 0;
  unsigned index = 0;
  return sscanf(name.c_str(), "%u.%u.%u", &item, &qualifier, &index) == numbers_ &&
         name_of({item, static_cast<uint16_t>(qualifier), static_cast<uint16_t>(index)}) == name;
}

QmiError ItemStore::write(const Key& key, std::span<const uint8_t> bytes) {
  return Store::write(name_of(key), bytes, bytes_of(to_hex_lines(bytes)));
}

// --- files ---

// The tree's directory has one subdirectory for each pair of qualifier and index.
FileTree::FileTree(int root, const char* tree, size_t& free_entries) : Store(root, tree, free_entries) {
  for (const Entry& entry : list_directory(directory(), tree)) {
    const std::string path = std::string(tree) + '/' + entry.name;
    if (!is_qualifier_and_index(entry.name)) {
      warn_ignored(path, "its name is no qualifier and index");
      continue;
    }
    const UniqueFd next = open_directory(directory(), entry.name.c_str());
    if (!next) refuse_directory(path);
    load_directory(next.get(), std::string(tree) + '/', entry.name + '/');
  }
}

void FileTree::load_directory(int directory, const std::string& tree, const std::string& prefix) {
  for (const Entry& entry : list_directory(directory, tree + prefix)) {
    const std::string path = prefix + entry.name;
    if (entry.kind == Entry::Kind::kDirectory) {
      const UniqueFd next = open_directory(directory, entry.name.c_str());
      if (!next) refuse_directory(tree + path);
      load_directory(next.get(), tree, path + '/');
    } else if (entry.kind == Entry::Kind::kFile) {
      auto bytes = read_file(directory, entry.name.c_str(), kMaxBytes);
      if (bytes) {
        load(path, std::move(*bytes));
      } else {
        warn_ignored(tree + path, "it cannot be read or has more than 256 bytes");
      }
    }
  }
}

// QUALIFIER.INDEX, then the path's components without empty ones. Empty for a path that names no file in the tree.
std::string FileTree::name_of(const Key& key) {
  if (key.path.empty() || key.path.ends_with('/')) return "";
  std::string path = directory_name(key.qualifier, key.index);
  for (std::string_view rest = key.path; !rest.empty();) {
    const size_t end = std::min(rest.find('/'), rest.size());
    const std::string_view component = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (component == "." || component == "..") return "";
    if (!component.empty()) path.append(1, '/').append(component);
  }
  return path;
}

// --- all of them ---

Storage::Storage(const std::string& directory, size_t max_entries)
    : root_(open_root(directory)),
      free_entries_(max_entries),
      nv(root_.get(), "nv", 3, free_entries_),
      efs(root_.get(), "efs", 2, free_entries_),
      rfnv(root_.get(), "rfnv", 1, free_entries_),
      files(root_.get(), "efs-path", free_entries_) {}

QmiError Storage::sync() {
  if (syncfs(root_.get()) != 0) return error_of_errno(errno);
  return QMI_ERR_NONE_V01;
}

}  // namespace pelmar::sim
