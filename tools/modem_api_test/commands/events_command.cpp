// events: follows everything that the modem reports by itself, until a count, a time, or Ctrl-C.
#include <optional>
#include <string>

#include "command_line.h"
#include "commands/commands.h"
#include "event_text.h"
#include "failure.h"
#include "json.h"
#include "options.h"
#include "time_text.h"

namespace pelmar::cli {

namespace {

struct EventValues {
  uint32_t count = 0;    // 0: no limit
  uint32_t seconds = 0;  // 0: no limit
  bool with_services = false;
};

void subscribe(const Context& context) {
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  for (int32_t event = MODEM_API_EVENT_VS_REPORT_A; event < MODEM_API_EVENT_COUNT; ++event) {
    check(modem_api_add_modem_event(client, event), "subscribing to event " + std::to_string(event));
  }
  check(modem_api_set_vs_event_report(client), "asking the modem to report events");
}

// Prints what arrives, and counts the events among it.
class Follower {
 public:
  Follower(const Context& context, uint32_t limit) : context_(context), limit_(limit) {}

  // Until the limit, the deadline, or the user's wish to end.
  void follow(std::optional<Clock::time_point> deadline) {
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

  void tell(const char* notice, const std::string& text) const {
    const auto now = WallClock::now();
    context_.output.print({{"time", utc_text(now)}, {"notice", notice}, {"text", text}}, local_text(now) + "  " + text);
  }

  bool is_complete() const { return limit_ > 0 && seen_ == limit_; }
  uint32_t seen() const { return seen_; }

 private:
  const Context& context_;
  const uint32_t limit_;
  uint32_t seen_ = 0;
};

void follow_events(const Context& context, const EventValues& values) {
  subscribe(context);
  if (values.with_services) {
    for (const auto type : {MODEM_API_CLIENT_SAR, MODEM_API_CLIENT_NAS_0, MODEM_API_CLIENT_NAS_1}) {
      context.session.open(type);
    }
  }
  const Signals::Follower ends_by_itself(context.signals);
  Follower follower(context, values.count);
  follower.follow(Clock::now());  // that the services came up
  follower.tell("following", "following the modem's events; Ctrl-C ends");
  std::optional<Clock::time_point> deadline;
  if (values.seconds > 0) deadline = Clock::now() + std::chrono::seconds(values.seconds);
  follower.follow(deadline);
  if (values.count == 0 || follower.is_complete() || context.inbox.is_interrupted()) return;
  throw Failure("waiting for events",
                "only " + std::to_string(follower.seen()) + " of " + std::to_string(values.count) + " came in " +
                    std::to_string(values.seconds) + " seconds",
                "Wait longer with --for SECONDS.");
}

}  // namespace

void add_events_command(CommandLine& line) {
  auto [command, values] = line.add("events", "follow the modem's events as they arrive", follow_events);
  add_number(command, "--count", values.count, "end after that many events");
  add_number(command, "--for", values.seconds, "end after that many seconds")->type_name("SECONDS");
  command.add_flag("--services", values.with_services, "also follow the SAR and NAS services going down and up");
}

}  // namespace pelmar::cli
