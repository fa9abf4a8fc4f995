// Unix stream sockets named by a path or, as "@name", by a name of the abstract namespace.
#pragma once

#include <functional>
#include <string>

#include "io/event_loop.h"
#include "unix_socket.h"

namespace pelmar::sim {

// Connects. Throws std::runtime_error with the reason of a failure.
UniqueFd connect_local(const std::string& name);

// Who may connect to an abstract name. (The owner and the mode of its file restrict a path to this user and root.)
enum class Admission { kThisUserAndRoot, kEveryUser };

// A listening socket on the event loop. It replaces the socket file of a process that has ended; where that process is
// alive, the constructor throws std::runtime_error. The destructor removes the file. A peer that is not admitted is
// disconnected at once and reported on standard error, at most once a second. A connection for which `accept` throws
// std::bad_alloc or std::system_error is closed.
class LocalListener final : public EventLoop::Watcher {
 public:
  using Accept = std::function<void(UniqueFd)>;

  LocalListener(EventLoop& loop, std::string name, Accept accept, Admission admission = Admission::kThisUserAndRoot);
  ~LocalListener() override;
  LocalListener(const LocalListener&) = delete;
  LocalListener& operator=(const LocalListener&) = delete;

  void on_ready(uint32_t events) override;

 private:
  void report_refusal(const ucred& peer);
  void pause_accepting();

  EventLoop& loop_;
  const std::string name_;
  const Accept accept_;
  const Admission admission_;
  UniqueFd fd_;
  uint64_t refused_ = 0;
  EventLoop::Clock::time_point next_report_{};
  EventLoop::TimerId pause_{};
};

}  // namespace pelmar::sim
