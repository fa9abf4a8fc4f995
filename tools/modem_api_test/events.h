// Prints events and notices as they arrive, and counts the events. After a loss of the modem it opens the clients again
// and continues.
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

// The callbacks of a command. `on_open` gets a client that was opened, also again after a loss; `on_look` is called
// each time that the modem responded to a check, and `on_end` at the end if it still responds. They run one at a time,
// on a thread of their own, and never during `start`, which returns the line that is printed first and when the modem
// is back.
struct FollowCalls {
  std::function<std::string()> start;
  std::function<void(int32_t client)> on_open;
  std::function<void()> on_look = nullptr;
  std::function<void()> on_end = nullptr;
};

// Opens a client of the vendor-specific service and subscribes it to all events. Prints what came so far, then the
// start, then all that comes until a limit or the user ends it. Throws if the count is not reached in time, or the
// modem is away at the end.
void follow_events(const Context& context, const FollowLimits& limits, const FollowCalls& calls);

}  // namespace pelmar::cli
