#include "storage/storage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "storage/directory.h"

namespace pelmar::sim {

namespace {

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

Storage::Storage(const std::string& directory, size_t max_entries)
    : root_(open_root(directory)),
      room_(max_entries),
      nv(root_.get(), "nv", 3, room_),
      efs(root_.get(), "efs", 2, room_),
      rfnv(root_.get(), "rfnv", 1, room_),
      files(root_.get(), "efs-path", room_) {}

QmiError Storage::sync() {
  if (syncfs(root_.get()) != 0) return error_of_errno(errno);
  return QMI_ERR_NONE_V01;
}

}  // namespace pelmar::sim
