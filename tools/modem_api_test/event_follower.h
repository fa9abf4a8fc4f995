// Following what a modem reports by itself: prints what arrives, and counts the events among it.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "command_line.h"
#include "inbox.h"

namespace pelmar::cli {

// How long to follow; 0: no limit.
struct FollowLimits {
  uint32_t count = 0;
  uint32_t seconds = 0;

  void add_to(CLI::App& command);
};

// Subscribes a client of the vendor-specific service to all events.
void subscribe_to_events(int32_t client);

class EventFollower {
 public:
  EventFollower(const Context& context, const FollowLimits& limits) : context_(context), limits_(limits) {}

  // What came so far, then `start`, then all that comes up to a limit, or the user's wish to end. Throws where the
  // count is not reached in time.
  void follow(const std::string& start);

 private:
  void follow_until(std::optional<Clock::time_point> deadline);
  void tell(const char* notice, const std::string& text) const;
  bool is_complete() const { return limits_.count > 0 && seen_ == limits_.count; }

  const Context& context_;
  const FollowLimits& limits_;
  uint32_t seen_ = 0;
};

}  // namespace pelmar::cli
