// A blocking Unix stream socket, as plain as it gets: the measure of what sockets cost.
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

  // Ends the process where nobody listens on the path.
  static LocalStream connect(const std::string& path);

  // False once the peer is gone.
  bool send_all(const void* bytes, size_t length) const;
  bool receive_all(void* bytes, size_t length) const;

  // Up to and with the next line feed.
  std::string receive_line() const;

  int descriptor() const { return descriptor_; }

  // Bytes received into `room`, 0 at the end.
  size_t receive(void* bytes, size_t room) const;

 private:
  int descriptor_;
};

}  // namespace pelmar::bench
