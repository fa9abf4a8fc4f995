// A registered voter: its connection to the peripheral manager, and its callback.
//
// Two threads serve it. One reads what the manager sends: answers go to the caller that waits for one, events into a
// queue. The other runs the callback, event by event, with no lock held, so a callback may use its own handle. A lost
// manager ends what waits and fails everything after it; whoever still wants a vote registers anew.
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "framework_thread.h"
#include "manager_link.h"
#include "pm-service.h"

namespace pelmar::platform::power {

class Voter : public std::enable_shared_from_this<Voter> {
 public:
  struct Callback {
    pm_client_event_cb function;
    void* data;
  };

  explicit Voter(Callback callback) : callback_(callback) {}

  // The results are PM_RET_*.

  // Registers at the manager. The first event can come after start() only.
  int enrol(const std::string& socket, const Register& names, pm_event& state);
  void start();

  int vote() { return ask(Vote{}); }
  int withdraw() { return ask(Withdraw{}); }
  int acknowledge(pm_event event) { return send(Acknowledge{event}) ? PM_RET_SUCCESS : PM_RET_FAILED; }

  // Takes the vote back and ends the registration. Returns when no callback runs any more, except where it is called
  // from the callback.
  void end();

 private:
  using Lock = std::unique_lock<std::mutex>;

  int ask(const Request& request);
  bool send(const Request& request);
  void read();
  bool take(const Reply& reply);
  void lose();
  void run_callbacks();

  const Callback callback_;
  ManagerLink link_;

  std::mutex asking_;  // one question at a time: answers have no numbers
  std::mutex sending_;

  std::mutex mutex_;  // guards the following
  std::condition_variable answered_;
  std::condition_variable event_came_;
  bool is_lost_ = false;
  bool is_ending_ = false;
  bool is_answer_due_ = false;
  std::optional<int> answer_;
  std::deque<pm_event> events_;

  FrameworkThread reader_;
  FrameworkThread caller_;
};

}  // namespace pelmar::platform::power
