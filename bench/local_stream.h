// A plain blocking Unix stream socket, which shows the cost of sockets alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace pelmar::bench {

class LocalStream {
 public:
  explicit LocalStream(int descriptor) : descriptor_(descriptor) {}
  LocalStream(LocalStream&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  ~LocalStream();

  // Ends the process if there is no listener on the path.
  static LocalStream connect(const std::string& path);

  // False once the peer is gone.
  bool send_all(const void* bytes, size_t length) const;
  bool receive_all(void* bytes, size_t length) const;

  // Receives up to and including the next line feed.
  std::string receive_line() const;

  int descriptor() const { return descriptor_; }

  // Returns the number of bytes received, 0 at the end.
  size_t receive(void* bytes, size_t length) const;

 private:
  int descriptor_;
};

}  // namespace pelmar::bench
