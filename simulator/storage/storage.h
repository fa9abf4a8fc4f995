// The modem's memory: NV items, EFS items, RF NV items and EFS files.
//
//   DIR/nv/ITEM.QUALIFIER.INDEX              hexadecimal text
//   DIR/efs/ITEM.QUALIFIER                   hexadecimal text
//   DIR/rfnv/ITEM                            hexadecimal text
//   DIR/efs-path/QUALIFIER.INDEX/the/path    the file's bytes
//
// All of it is read once at the start; from then on reads return the bytes in memory. A write or a delete returns when
// the file system has it, so it outlives the process; sync() makes it outlive a loss of power. The directory belongs to
// one process at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qmi/service.h"
#include "unique_fd.h"

namespace pelmar::sim {

// A directory of entries of at most 256 bytes, each named by its path below the directory: one file each, and all of
// them in memory. No path leaves the directory and no symbolic link is followed.
class Store {
 public:
  size_t count() const { return entries_.size(); }

 protected:
  static constexpr size_t kMaxBytes = 256;

  // free_entries: how many more entries all stores may have. Throws std::runtime_error where the directory cannot be
  // opened.
  Store(int root, const char* directory, size_t& free_entries);

  // An empty path is an invalid argument. The bytes are valid until the next call.
  QmiError read(const std::string& path, std::span<const uint8_t>& bytes) const;
  // content: the file's content for these bytes.
  QmiError write(const std::string& path, std::span<const uint8_t> bytes, std::span<const uint8_t> content);
  QmiError remove(const std::string& path);

  // Puts the entry of a file that is there already.
  void load(const std::string& path, std::vector<uint8_t> bytes);
  int directory() const { return directory_.get(); }

 private:
  const int root_;
  size_t& free_entries_;
  UniqueFd directory_;
  std::map<std::string, std::vector<uint8_t>> entries_;
};

// Items addressed by numbers.
class ItemStore final : private Store {
 public:
  struct Key {
    uint32_t item;
    uint16_t qualifier;
    uint16_t index;
  };

  // numbers: how many of the key's numbers are in a file's name; the others are always 0.
  ItemStore(int root, const char* directory, int numbers, size_t& free_entries);

  QmiError read(const Key& key, std::span<const uint8_t>& bytes) const { return Store::read(name_of(key), bytes); }
  QmiError write(const Key& key, std::span<const uint8_t> bytes);
  QmiError remove(const Key& key) { return Store::remove(name_of(key)); }
  using Store::count;

 private:
  std::string name_of(const Key& key) const;
  bool is_name_of_item(const std::string& name) const;

  const int numbers_;
};

// Files addressed by a path.
class FileTree final : private Store {
 public:
  struct Key {
    std::string_view path;
    uint16_t qualifier;
    uint8_t index;
  };

  FileTree(int root, const char* directory, size_t& free_entries);

  QmiError read(const Key& key, std::span<const uint8_t>& bytes) const { return Store::read(name_of(key), bytes); }
  QmiError write(const Key& key, std::span<const uint8_t> bytes) { return Store::write(name_of(key), bytes, bytes); }
  QmiError remove(const Key& key) { return Store::remove(name_of(key)); }
  using Store::count;

 private:
  static std::string name_of(const Key& key);
  void load_directory(int directory, const std::string& tree, const std::string& prefix);
};

class Storage {
 public:
  // Creates the directory where it is missing. Throws std::runtime_error with the remedy for a failure.
  explicit Storage(const std::string& directory, size_t max_entries);

  // Returns when all that was written and deleted is on the disk. The calling thread waits for the whole file system.
  QmiError sync();

 private:
  UniqueFd root_;
  size_t free_entries_;

 public:
  ItemStore nv;
  ItemStore efs;
  ItemStore rfnv;
  FileTree files;
};

}  // namespace pelmar::sim
