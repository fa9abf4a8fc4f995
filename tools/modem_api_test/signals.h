// SIGINT, SIGTERM and SIGHUP end the program cleanly: a thread of its own waits for them, so that it can act while the
// command waits for the modem.
//
// The first signal tells the inbox; a command that follows the modem ends by itself then. Any other is not waited for:
// the thread frees the clients, so that the modem gets its client ids back, and ends the process with 128 plus the
// signal's number. The second signal ends the process at once.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "inbox.h"
#include "unique_fd.h"

namespace pelmar::cli {

class Signals {
 public:
  // Keeps the signals from every thread that starts later. Call it before any does.
  static void block();

  Signals(Inbox& inbox, std::function<void()> clean_up);
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

  // The command has ended. Returns the signal that came, 0 for none; never returns while the thread ends the process.
  int finish();

 private:
  void run();
  void end_process(int signal);
  void count_followers(int change);

  Inbox& inbox_;
  const std::function<void()> clean_up_;
  UniqueFd signals_;
  UniqueFd finish_;  // an eventfd: tells the thread that the command has ended

  std::mutex mutex_;  // never released by a thread that ends the process
  std::condition_variable changed_;
  int followers_ = 0;
  bool is_finished_ = false;
  int caught_ = 0;

  std::thread thread_;
};

}  // namespace pelmar::cli
