#include "event_follower.h"

#include "event_text.h"
#include "failure.h"
#include "json.h"
#include "options.h"
#include "time_text.h"

namespace pelmar::cli {

void FollowLimits::add_to(CLI::App& command) {
  add_number(command, "--count", count, "end after that many events");
  add_number(command, "--for", seconds, "end after that many seconds")->type_name("SECONDS");
}

void subscribe_to_events(int32_t client) {
  for (int32_t event = MODEM_API_EVENT_VS_REPORT_A; event < MODEM_API_EVENT_COUNT; ++event) {
    check(modem_api_add_modem_event(client, event), "subscribing to event " + std::to_string(event));
  }
  check(modem_api_set_vs_event_report(client), "asking the modem to report events");
}

void EventFollower::follow_until(std::optional<Clock::time_point> deadline) {
  while (!is_complete()) {
    const auto arrival = context_.inbox.next(deadline);
    if (!arrival) return;
    seen_ += arrival->kind == Arrival::Kind::kEvent ? 1 : 0;
    const Description description = describe(*arrival);
    context_.output.print(description.document, description.text);
    if (const size_t dropped = context_.inbox.take_dropped()) {
      tell("dropped", std::to_string(dropped) + " events were dropped: the output is too slow");
    }
  }
}

void EventFollower::tell(const char* notice, const std::string& text) const {
  const auto now = WallClock::now();
  context_.output.print({{"time", utc_text(now)}, {"notice", notice}, {"text", text}}, local_text(now) + "  " + text);
}

void EventFollower::follow(const std::string& start) {
  const Signals::Follower ends_by_itself(context_.signals);
  follow_until(Clock::now());  // that the services came up
  tell("following", start);
  std::optional<Clock::time_point> deadline;
  if (limits_.seconds > 0) deadline = Clock::now() + std::chrono::seconds(limits_.seconds);
  follow_until(deadline);
  if (limits_.count == 0 || is_complete() || context_.inbox.is_interrupted()) return;
  throw Failure("waiting for events",
                "only " + std::to_string(seen_) + " of " + std::to_string(limits_.count) + " came in " +
                    std::to_string(limits_.seconds) + " seconds",
                "Wait longer with --for SECONDS.");
}

}  // namespace pelmar::cli
