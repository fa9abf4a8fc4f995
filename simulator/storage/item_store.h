// Items addressed by numbers: one small file of hexadecimal text each, all of them in memory.
//
// Reads return what is in memory; a write or a delete returns when the file system has it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "qmi/service.h"
#include "storage/store_limits.h"
#include "unique_fd.h"

namespace pelmar::sim {

class ItemStore {
 public:
  struct Key {
    uint32_t item;
    uint16_t qualifier;
    uint16_t index;
  };

  // numbers: how many of the key's numbers are in a file's name (the others are always 0).
  ItemStore(int root, const char* directory, int numbers, Room& room);

  // The bytes hold until the next call.
  QmiError read(const Key& key, std::span<const uint8_t>& bytes) const;
  QmiError write(const Key& key, std::span<const uint8_t> bytes);
  QmiError remove(const Key& key);
  size_t count() const { return items_.size(); }

 private:
  std::string file_name(const Key& key) const;
  std::optional<Key> parse_file_name(const std::string& name) const;
  void load(const char* directory);

  const int root_;
  const int numbers_;
  Room& room_;
  UniqueFd directory_;
  std::unordered_map<uint64_t, std::vector<uint8_t>> items_;
};

}  // namespace pelmar::sim
