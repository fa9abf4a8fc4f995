// Files addressed by a path that cannot leave the tree: no "..", no symbolic links, no special files.
//
//   TREE/QUALIFIER.INDEX/the/path    the file's bytes
//
// Reads return what is in memory; a write or a delete returns when the file system has it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qmi/service.h"
#include "storage/store_limits.h"
#include "unique_fd.h"

namespace pelmar::sim {

class FileTree {
 public:
  struct Key {
    std::string_view path;
    uint16_t qualifier;
    uint8_t index;
  };

  FileTree(int root, const char* directory, Room& room);

  // The bytes hold until the next call.
  QmiError read(const Key& key, std::span<const uint8_t>& bytes) const;
  QmiError write(const Key& key, std::span<const uint8_t> bytes);
  QmiError remove(const Key& key);
  size_t count() const { return files_.size(); }

 private:
  void load(const char* tree);
  void load(int directory, const std::string& tree, const std::string& prefix);

  const int root_;
  Room& room_;
  UniqueFd directory_;
  std::map<std::string, std::vector<uint8_t>, std::less<>> files_;  // by path below the directory
};

}  // namespace pelmar::sim
