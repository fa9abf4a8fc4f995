#include "storage/file_tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>

#include "storage/directory.h"

namespace pelmar::sim {

namespace {

std::string directory_name(uint16_t qualifier, uint8_t index) {
  return std::to_string(qualifier) + '.' + std::to_string(index);
}

bool is_qualifier_and_index(const std::string& name) {
  unsigned qualifier = 0;
  unsigned index = 0;
  return sscanf(name.c_str(), "%u.%u", &qualifier, &index) == 2 &&
         directory_name(static_cast<uint16_t>(qualifier), static_cast<uint8_t>(index)) == name;
}

// The path of a file below the tree's directory: QUALIFIER.INDEX, then the components without empty ones. Nothing for a
// path that names no file in the tree.
std::optional<std::string> normalize(const FileTree::Key& key) {
  if (key.path.empty() || key.path.ends_with('/')) return std::nullopt;
  std::string path = directory_name(key.qualifier, key.index);
  for (std::string_view rest = key.path; !rest.empty();) {
    const size_t end = std::min(rest.find('/'), rest.size());
    const std::string_view component = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (component == "." || component == "..") return std::nullopt;
    if (!component.empty()) path.append(1, '/').append(component);
  }
  return path;
}

struct Place {
  std::vector<UniqueFd> directories;  // from the first component on
  std::string name;                   // of the file in the last of them
  std::vector<std::string> components;
};

// Opens the directories on the way, one component at a time.
QmiError walk(int top, const std::string& path, bool create, Place& place) {
  size_t start = 0;
  for (size_t end = path.find('/'); end != std::string::npos; start = end + 1, end = path.find('/', start)) {
    const int parent = place.directories.empty() ? top : place.directories.back().get();
    place.components.push_back(path.substr(start, end - start));
    const char* component = place.components.back().c_str();
    UniqueFd next = create ? open_or_create_directory(parent, component) : open_directory(parent, component);
    if (!next) return error_of_errno(errno);
    place.directories.push_back(std::move(next));
  }
  place.name = path.substr(start);
  return QMI_ERR_NONE_V01;
}

// A directory that became empty goes too, so that its name is free for a file.
void prune(int top, const Place& place) {
  for (size_t i = place.directories.size(); i-- > 0;) {
    const int parent = i == 0 ? top : place.directories[i - 1].get();
    if (unlinkat(parent, place.components[i].c_str(), AT_REMOVEDIR) != 0) return;
  }
}

}  // namespace

FileTree::FileTree(int root, const char* directory, Room& room)
    : root_(root), room_(room), directory_(require_directory(root, directory)) {
  load(directory);
}

// Right below the tree's directory are those of the qualifiers and indices.
void FileTree::load(const char* tree) {
  for (const Entry& entry : list_directory(directory_.get(), tree)) {
    const std::string path = std::string(tree) + '/' + entry.name;
    if (!is_qualifier_and_index(entry.name)) {
      warn_ignored(path, "its name is no qualifier and index");
      continue;
    }
    const UniqueFd next = open_directory(directory_.get(), entry.name.c_str());
    if (!next) refuse_directory(path);
    load(next.get(), std::string(tree) + '/', entry.name + '/');
  }
}

void FileTree::load(int directory, const std::string& tree, const std::string& prefix) {
  for (const Entry& entry : list_directory(directory, tree + prefix)) {
    const std::string path = prefix + entry.name;
    if (entry.kind == Entry::Kind::kOther) continue;
    if (entry.kind == Entry::Kind::kDirectory) {
      const UniqueFd next = open_directory(directory, entry.name.c_str());
      if (!next) refuse_directory(tree + path);
      load(next.get(), tree, path + '/');
      continue;
    }
    auto bytes = read_file(directory, entry.name.c_str(), kMaxStoredBytes);
    if (!bytes) {
      warn_ignored(tree + path, "it cannot be read or has more than 256 bytes");
      continue;
    }
    files_.emplace(path, std::move(*bytes));
    room_.take();
  }
}

QmiError FileTree::read(const Key& key, std::span<const uint8_t>& bytes) const {
  const auto path = normalize(key);
  if (!path) return QMI_ERR_INVALID_ARG_V01;
  const auto file = files_.find(*path);
  if (file == files_.end()) return QMI_ERR_NO_ENTRY_V01;
  bytes = file->second;
  return QMI_ERR_NONE_V01;
}

QmiError FileTree::write(const Key& key, std::span<const uint8_t> bytes) {
  const auto path = normalize(key);
  if (!path) return QMI_ERR_INVALID_ARG_V01;
  const bool is_new = !files_.contains(*path);
  if (is_new && room_.is_full()) return QMI_ERR_DEVICE_STORAGE_FULL_V01;
  Place place;
  QmiError error = walk(directory_.get(), *path, true, place);
  if (error == QMI_ERR_NONE_V01) {
    error = replace_file(root_, place.directories.back().get(), place.name.c_str(), bytes);
  }
  if (error != QMI_ERR_NONE_V01) {
    prune(directory_.get(), place);
    return error;
  }
  files_[*path].assign(bytes.begin(), bytes.end());
  if (is_new) room_.take();
  return QMI_ERR_NONE_V01;
}

QmiError FileTree::remove(const Key& key) {
  const auto path = normalize(key);
  if (!path) return QMI_ERR_INVALID_ARG_V01;
  const auto file = files_.find(*path);
  if (file == files_.end()) return QMI_ERR_NO_ENTRY_V01;
  Place place;
  const QmiError error = walk(directory_.get(), *path, false, place);
  if (error != QMI_ERR_NONE_V01 && error != QMI_ERR_NO_ENTRY_V01) return error;
  if (error == QMI_ERR_NONE_V01) {
    if (unlinkat(place.directories.back().get(), place.name.c_str(), 0) != 0 && errno != ENOENT) {
      return error_of_errno(errno);
    }
    prune(directory_.get(), place);
  }
  files_.erase(file);
  room_.give_back();
  return QMI_ERR_NONE_V01;
}

}  // namespace pelmar::sim
