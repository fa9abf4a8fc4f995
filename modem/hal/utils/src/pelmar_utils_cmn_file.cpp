// Copying a file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "pelmar_log_site.h"
#include "pelmar_string.h"

namespace pelmar {
namespace {

constexpr const char* kFunction = "pelmar_copy_file";
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
ssize_t read_chunk(int source, char (&chunk)[kChunkBytes]) {
  for (;;) {
    const ssize_t length = read(source, chunk, sizeof(chunk));
    const int error = errno;
    PELMAR_LOG_DEBUG_AS(kFunction, "Start to read src file: bytes_read = %d, errno = %d, EINTR = %d",
                        static_cast<int>(length), error, EINTR);
    if (length >= 0) return length;
    if (error != EINTR) {
      PELMAR_LOG_ERROR_AS(kFunction, "Error happen during reading src file");
      return -1;
    }
    PELMAR_LOG_DEBUG_AS(kFunction, "Continue to read src file: bytes_read = %d, errno = %d, EINTR = %d",
                        static_cast<int>(length), error, EINTR);
  }
}

bool write_chunk(int target, const char* chunk, size_t length) {
  const auto bytes_read = static_cast<int>(length);
  while (length > 0) {
    const ssize_t written = write(target, chunk, length);
    const int error = errno;
    PELMAR_LOG_DEBUG_AS(kFunction, "Start to write tgt file: bytes_write = %d, errno = %d, EINTR = %d",
                        static_cast<int>(written), error, EINTR);
    if (written == 0) {  // nothing goes in and nothing is wrong: trying again would never end
      PELMAR_LOG_ERROR_AS(kFunction, "Error happen during writing tgt file, abort copy");
      return false;
    }
    if (written < 0 && error != EINTR) {
      PELMAR_LOG_ERROR_AS(kFunction, "Error happen during writing tgt file");
      return false;
    }
    if (written < 0) {
      PELMAR_LOG_DEBUG_AS(kFunction, "Continue to write tgt file: bytes_read = %d, errno = %d, EINTR = %d", bytes_read,
                          error, EINTR);
      continue;
    }
    chunk += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

int32_t copy_content(int source, int target) {
  char chunk[kChunkBytes];
  for (;;) {
    const ssize_t length = read_chunk(source, chunk);
    if (length < 0) return PELMAR_COPY_FAILED;
    if (length == 0) break;
    if (!write_chunk(target, chunk, static_cast<size_t>(length))) return PELMAR_COPY_FAILED;
  }
  PELMAR_LOG_DEBUG_AS(kFunction, "Write done with success.");
  return PELMAR_COPY_DONE;
}

int32_t copy_file(const char* source_path, const char* target_path) {
  if (source_path == nullptr) {
    PELMAR_LOG_ERROR_AS(kFunction, "src is null");
    return PELMAR_COPY_SOURCE_IS_NULL;
  }
  if (target_path == nullptr) {
    PELMAR_LOG_ERROR_AS(kFunction, "tgt is null");
    return PELMAR_COPY_TARGET_IS_NULL;
  }
  const File source(open(source_path, O_RDONLY | O_CLOEXEC));
  if (!source.is_open()) {
    PELMAR_LOG_ERROR_AS(kFunction, "src open failed");
    return PELMAR_COPY_SOURCE_NOT_OPENED;
  }
  const File target(open(target_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0777));
  if (!target.is_open()) {
    PELMAR_LOG_ERROR_AS(kFunction, "tgt open failed");
    return PELMAR_COPY_TARGET_NOT_OPENED;
  }
  PELMAR_LOG_DEBUG_AS(kFunction, "src: %s, tgt: %s", source_path, target_path);
  return copy_content(source.get(), target.get());
}

}  // namespace
}  // namespace pelmar

extern "C" int32_t pelmar_copy_file(const char* src, const char* tgt) {
  PELMAR_RETURN_LOGGED(pelmar::copy_file(src, tgt));
}
