// A connected Unix stream socket with bounded waits. It never raises SIGPIPE and its descriptor is not inherited by
// programs that are executed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "deadline.h"
#include "process_fd.h"
#include "transport.h"

namespace pelmar::platform {

class SocketStream {
 public:
  // Connects to a path, or to an abstract name written as @NAME. A listener that is there but cannot be used, or does
  // not admit this user, is reported to the system log.
  bool connect(const std::string& address, const Deadline& deadline);

  bool is_open() const { return static_cast<bool>(descriptor_); }
  int descriptor() const { return descriptor_.get(); }

  // Sends without waiting. What the socket does not take is kept for flush(), which must have sent it before the next
  // send.
  SendStatus send(const uint8_t* bytes, size_t length);
  bool has_unsent() const { return !unsent_.empty(); }
  SendStatus flush(const Deadline& deadline);

  // Receives at least one byte.
  ReadStatus receive(uint8_t* to, size_t room, const Deadline& deadline, size_t& received);

  void stop_receiving();
  void shut_down();
  void close();

 private:
  bool wait(short events, const Deadline& deadline);
  void report_refusal();

  ProcessFd descriptor_;
  std::string silent_listener_;  // its name, until it has sent something
  std::vector<uint8_t> unsent_;
};

}  // namespace pelmar::platform
