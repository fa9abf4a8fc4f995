// Copies a file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "pelmar_log_site.h"
#include "pelmar_string.h"

namespace pelmar {
namespace {

constexpr size_t kChunkBytes = 10240;

// Closes the descriptor.
struct File {
  const int descriptor;
  ~File() {
    if (is_open()) close(descriptor);
  }
  bool is_open() const { return descriptor >= 0; }
};

// Returns the number of bytes read, 0 at the end of the file, or -1.
ssize_t read_chunk(const Operation& operation, int source, char (&chunk)[kChunkBytes]) {
  for (;;) {
    const ssize_t length = read(source, chunk, sizeof(chunk));
    const int error = errno;
    PELMAR_LOG_DEBUG_IN(operation, "Start to read src file: bytes_read = %d, errno = %d, EINTR = %d",
                        static_cast<int>(length), error, EINTR);
    if (length >= 0) return length;
    if (error != EINTR) {
      PELMAR_LOG_ERROR_IN(operation, "Error happen during reading src file");
      return -1;
    }
    PELMAR_LOG_DEBUG_IN(operation, "Continue to read src file: bytes_read = %d, errno = %d, EINTR = %d",
                        static_cast<int>(length), error, EINTR);
  }
}

bool write_chunk(const Operation& operation, int target, const char* chunk, size_t length) {
  const auto bytes_read = static_cast<int>(length);
  while (length > 0) {
    const ssize_t written = write(target, chunk, length);
    const int error = errno;
    PELMAR_LOG_DEBUG_IN(operation, "Start to write tgt file: bytes_write = %d, errno = %d, EINTR = %d",
                        static_cast<int>(written), error, EINTR);
    if (written > 0) {
      chunk += written;
      length -= static_cast<size_t>(written);
      continue;
    }
    if (written == 0 || error != EINTR) {
      // A write without progress and without error would not succeed in another attempt.
      PELMAR_LOG_ERROR_IN(operation, "Error happen during writing tgt file%s", written == 0 ? ", abort copy" : "");
      return false;
    }
    PELMAR_LOG_DEBUG_IN(operation, "Continue to write tgt file: bytes_read = %d, errno = %d, EINTR = %d", bytes_read,
                        error, EINTR);
  }
  return true;
}

int32_t copy_content(const Operation& operation, int source, int target) {
  char chunk[kChunkBytes];
  for (;;) {
    const ssize_t length = read_chunk(operation, source, chunk);
    if (length < 0) return PELMAR_COPY_FAILED;
    if (length == 0) break;
    if (!write_chunk(operation, target, chunk, static_cast<size_t>(length))) return PELMAR_COPY_FAILED;
  }
  PELMAR_LOG_DEBUG_IN(operation, "Write done with success.");
  return PELMAR_COPY_DONE;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" int32_t pelmar_copy_file(const char* src, const char* tgt) {
  Operation operation(PELMAR_HERE);
  if (src == nullptr) return operation.fail(PELMAR_COPY_SOURCE_IS_NULL, "src is null");
  if (tgt == nullptr) return operation.fail(PELMAR_COPY_TARGET_IS_NULL, "tgt is null");
  const File source{open(src, O_RDONLY | O_CLOEXEC)};
  if (!source.is_open()) return operation.fail(PELMAR_COPY_SOURCE_NOT_OPENED, "src open failed");
  const File target{open(tgt, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777)};
  if (!target.is_open()) return operation.fail(PELMAR_COPY_TARGET_NOT_OPENED, "tgt open failed");
  PELMAR_LOG_DEBUG("src: %s, tgt: %s", src, tgt);
  return operation.exit(copy_content(operation, source.descriptor, target.descriptor));
}
