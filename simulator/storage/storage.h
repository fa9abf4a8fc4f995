// What the modem remembers: NV items, EFS items, RF NV items and EFS files, on disk and in memory.
//
//   DIR/nv/ITEM.QUALIFIER.INDEX              hexadecimal text
//   DIR/efs/ITEM.QUALIFIER                   hexadecimal text
//   DIR/rfnv/ITEM                            hexadecimal text
//   DIR/efs-path/QUALIFIER.INDEX/the/path    the file's bytes
//
// All of it is read once at the start; from then on reads are answered from memory. A write or a delete is in the file
// system before it is answered, so it outlives the process; sync() makes it outlive the machine. The directory belongs
// to one process at a time.
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

  // Returns when all that was written and deleted is on the disk.
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
