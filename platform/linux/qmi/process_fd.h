// A file descriptor of this process alone: a child of fork() does not share it.
//
// A child's copy of a socket could end its parent's connection, and would keep it open beyond the parent's end. All
// such descriptors are therefore on one list, and a child closes its copies before fork() returns. What the child
// inherited of its parent's objects has no descriptor any more, so that nothing there can reach the parent's peers.
#pragma once

namespace pelmar::platform {

// Changes in a child of fork(): how many forks lie between the program's start and this process. Where it changed
// during a callback, the locks of handles may be held by threads that this process does not have.
unsigned fork_count();

class ProcessFd {
 public:
  ProcessFd() = default;
  // Owns what `create` returns, or nothing where that is negative. A fork waits for `create` to return.
  explicit ProcessFd(int (*create)());
  ProcessFd(ProcessFd&& other) noexcept;
  ProcessFd& operator=(ProcessFd&& other) noexcept;
  ~ProcessFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset();

 private:
  friend unsigned fork_count();
  class List;

  int fd_ = -1;
  ProcessFd* previous_ = nullptr;
  ProcessFd* next_ = nullptr;
};

}  // namespace pelmar::platform
