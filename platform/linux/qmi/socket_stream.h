// A connected Unix stream socket with bounded waits. It never raises SIGPIPE, and programs that this process executes
// do not inherit its descriptor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "deadline.h"
#include "handle.h"

namespace pelmar::platform {

class SocketStream {
 public:
  // Connects to a path, or to an abstract name written as @NAME. Reports to the system log if there is a listener that
  // cannot be used or does not admit this user.
  Problem connect(const std::string& address, const Deadline& deadline);

  // Why a listener that has not sent anything may have refused this user, and what to do; empty: no such reason.
  std::string describe_refusal() const;

  // Takes over a connected socket, whose bytes the caller sends and receives itself.
  void adopt(ProcessFd socket) { descriptor_ = std::move(socket); }

  bool is_open() const { return static_cast<bool>(descriptor_); }
  int descriptor() const { return descriptor_.get(); }

  // Sends without waiting. The stream keeps what the socket does not take; flush() must send it before the next send.
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
  std::string silent_listener_;  // the listener's name, until it has sent something
  std::vector<uint8_t> unsent_;
};

}  // namespace pelmar::platform
