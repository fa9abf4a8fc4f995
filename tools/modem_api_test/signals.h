// SIGINT, SIGTERM and SIGHUP end the program cleanly: a thread of its own waits for them, so that it can act while the
// command waits for the modem.
//
// The first signal interrupts the inbox; a command that follows the modem ends by itself then. Any other command is not
// waited for: the thread frees the clients, so that the modem gets its client ids back, and ends the process with 128
// plus the signal's number. The second signal ends the process at once.
//
// The same thread ends the program when its time is up. The command may be in a call of the library that blocks
// until the modem responds: so it is not waited for, and the clients are left to the platform, which gives their ids
// back at the process's end within a bounded time. It does not flush: all output is written already, and flushing a
// stream that another thread has locked would block.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "failure.h"
#include "inbox.h"
#include "unique_fd.h"

namespace pelmar::cli {

class Signals {
 public:
  // Blocks the signals in every thread that starts later. Call it before any does.
  static void block();

  static constexpr int kTimeUp = -1;

  // Reports the failure, if any, and returns the exit status. `end`: the signal that came, kTimeUp, or 0 for neither.
  using Conclude = std::function<int(std::optional<Failure> failure, int end)>;

  // 0 seconds: without limit.
  Signals(Inbox& inbox, std::function<void()> clean_up, uint32_t seconds, Conclude conclude);
  ~Signals();

  // While one lives, the command watches the inbox and ends by itself.
  class Follower {
   public:
    explicit Follower(Signals& signals) : signals_(signals) { signals_.count_followers(1); }
    ~Follower() { signals_.count_followers(-1); }
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

   private:
    Signals& signals_;
  };

  // The command has ended. Returns the signal that came, kTimeUp, or 0 for neither; never returns while the thread ends
  // the process.
  int finish();

  // Concludes the command and ends the process, also where a call of the library is under way on another thread.
  [[noreturn]] void end(const std::optional<Failure>& failure);

 private:
  void run();
  int milliseconds_left() const;
  void end_process(int reason);
  void count_followers(int change);

  Inbox& inbox_;
  const std::function<void()> clean_up_;
  const std::optional<Clock::time_point> deadline_;
  const Conclude conclude_;
  UniqueFd signals_;
  UniqueFd finish_;  // an eventfd, written when the command has ended

  std::mutex mutex_;  // never released by a thread that ends the process
  std::condition_variable changed_;
  int followers_ = 0;
  bool is_finished_ = false;
  int caught_ = 0;

  std::thread thread_;
};

}  // namespace pelmar::cli
