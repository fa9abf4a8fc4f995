// What the modem remembers: NV items, EFS items, RF NV items and EFS files, in files and in memory.
//
//   DIR/nv/ITEM.QUALIFIER.INDEX              hexadecimal text
//   DIR/efs/ITEM.QUALIFIER                   hexadecimal text
//   DIR/rfnv/ITEM                            hexadecimal text
//   DIR/efs-path/QUALIFIER.INDEX/the/path    the file's bytes
//
// All of it is read once at the start; from then on reads return what is in memory. A write or a delete returns when
// the file system has it, so it outlives the process; sync() makes it outlive a loss of power. The directory belongs to
// one process at a time.
#pragma once

#include <cstddef>
#include <string>

#include "storage/file_tree.h"
#include "storage/item_store.h"
#include "storage/store_limits.h"
#include "unique_fd.h"

namespace pelmar::sim {

class Storage {
 public:
  static constexpr size_t kDefaultMaxEntries = 4096;

  // Creates the directory where it is missing. Throws std::runtime_error with what to do about it.
  explicit Storage(const std::string& directory, size_t max_entries = kDefaultMaxEntries);

  // Returns when all that was written and deleted is on the disk. The calling thread waits for the whole file system.
  QmiError sync();

 private:
  UniqueFd root_;
  Room room_;

 public:
  ItemStore nv;
  ItemStore efs;
  ItemStore rfnv;
  FileTree files;
};

}  // namespace pelmar::sim
