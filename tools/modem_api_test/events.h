// Following what a modem reports by itself: prints what arrives, and counts the events among it. Where the modem was
// away, it opens the clients again and goes on.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "command_line.h"
#include "inbox.h"
#include "modem_link.h"

namespace pelmar::cli {

// How long to follow; 0: no limit.
struct FollowLimits {
  uint32_t count = 0;
  uint32_t seconds = 0;

  void add_to(const Command& command);
};

class EventFollower {
 public:
  // What a command does besides. `on_open` gets a client that was opened, also again after a loss; `on_look` is called
  // each time that the modem was found to be there, and `on_end` at the end where it still is. They run one at a time,
  // on a thread of their own, and not while `start` of follow() does.
  struct Calls {
    std::function<void(int32_t client)> on_open;
    std::function<void()> on_look;
    std::function<void()> on_end;
  };

  // Opens a client of the vendor-specific service and subscribes it to all events.
  EventFollower(const Context& context, const FollowLimits& limits, Calls calls);

  // What came so far, then `start`, then all that comes up to a limit, or the user's wish to end. Throws where the
  // count is not reached in time, or the modem is away at the end. `start` is printed again when the modem is back.
  void follow(const std::function<std::string()>& start) {
    thread_.run([&] { follow_to_the_end(start); });
  }

 private:
  void look(const std::function<std::string()>& start);
  void follow_until(std::optional<Clock::time_point> deadline, const std::function<std::string()>& start);
  void take(const Arrival& arrival);
  void take_waiting();
  void follow_to_the_end(const std::function<std::string()>& start);
  std::string problem() const;
  void print(const Json& document, const std::string& text) const;
  bool is_complete() const { return limits_.count > 0 && seen_ == limits_.count; }

  const Context& context_;
  const FollowLimits& limits_;
  const Calls calls_;
  int32_t client_ = -1;
  ModemLink link_;
  std::string problem_;  // as it was printed last
  Clock::time_point last_look_;
  Clock::time_point next_look_;
  uint32_t seen_ = 0;
  ModemThread thread_;
};

}  // namespace pelmar::cli
