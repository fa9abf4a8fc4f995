// Copying a file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "pelmar_log_site.h"
#include "pelmar_string.h"

namespace pelmar {
namespace {

constexpr size_t kChunkBytes = 10240;

class File {
 public:
  explicit File(int descriptor) : descriptor_(descriptor) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (is_open()) close(descriptor_);
  }
  bool is_open() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }

 private:
  const int descriptor_;
};

// Bytes read, 0 at the end, or -1.
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
    if (written == 0) {  // nothing goes in and nothing is wrong: trying again would never end
      PELMAR_LOG_ERROR_IN(operation, "Error happen during writing tgt file, abort copy");
      return false;
    }
    if (written < 0 && error != EINTR) {
      PELMAR_LOG_ERROR_IN(operation, "Error happen during writing tgt file");
      return false;
    }
    if (written < 0) {
      PELMAR_LOG_DEBUG_IN(operation, "Continue to write tgt file: bytes_read = %d, errno = %d, EINTR = %d", bytes_read,
                          error, EINTR);
      continue;
    }
    chunk += written;
    length -= static_cast<size_t>(written);
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
  if (src == nullptr) {
    PELMAR_LOG_ERROR("src is null");
    return operation.exit(PELMAR_COPY_SOURCE_IS_NULL);
  }
  if (tgt == nullptr) {
    PELMAR_LOG_ERROR("tgt is null");
    return operation.exit(PELMAR_COPY_TARGET_IS_NULL);
  }
  const File source(open(src, O_RDONLY | O_CLOEXEC));
  if (!source.is_open()) {
    PELMAR_LOG_ERROR("src open failed");
    return operation.exit(PELMAR_COPY_SOURCE_NOT_OPENED);
  }
  const File target(open(tgt, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777));
  if (!target.is_open()) {
    PELMAR_LOG_ERROR("tgt open failed");
    return operation.exit(PELMAR_COPY_TARGET_NOT_OPENED);
  }
  PELMAR_LOG_DEBUG("src: %s, tgt: %s", src, tgt);
  return operation.exit(copy_content(operation, source.get(), target.get()));
}
