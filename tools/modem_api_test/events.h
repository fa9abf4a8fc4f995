// Following what a modem reports by itself: prints what arrives, and counts the events among it. Where the modem was
// away, it opens the clients again and goes on.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "command_line.h"

namespace pelmar::cli {

// How long to follow; 0: no limit.
struct FollowLimits {
  uint32_t count = 0;
  uint32_t seconds = 0;

  // `what` is counted.
  void add_to(const Command& command, const std::string& what = "events");
};

// What a command does besides. `on_open` gets a client that was opened, also again after a loss; `on_look` is called
// each time that the modem was found to be there, and `on_end` at the end where it still is. They run one at a time, on
// a thread of their own, and not while `start` does, which returns the line that is printed at first and when the modem
// is back.
struct FollowCalls {
  std::function<std::string()> start;
  std::function<void(int32_t client)> on_open;
  std::function<void()> on_look = nullptr;
  std::function<void()> on_end = nullptr;
};

// Opens a client of the vendor-specific service and subscribes it to all events. Prints what came so far, then the
// start, then all that comes up to a limit, or the user's wish to end. Throws where the count is not reached in time,
// or the modem is away at the end.
void follow_events(const Context& context, const FollowLimits& limits, const FollowCalls& calls);

}  // namespace pelmar::cli
