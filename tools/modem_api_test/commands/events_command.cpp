// events: follows everything that the modem reports by itself, until a count, a time, or Ctrl-C.
#include "command_line.h"
#include "commands/commands.h"
#include "event_follower.h"

namespace pelmar::cli {

namespace {

struct EventValues {
  FollowLimits limits;
  bool with_services = false;
};

void follow_events(const Context& context, const EventValues& values) {
  const auto open_services = [&](int32_t) {
    if (!values.with_services) return;
    for (const auto type : {MODEM_API_CLIENT_SAR, MODEM_API_CLIENT_NAS_0, MODEM_API_CLIENT_NAS_1}) {
      context.session.open(type);
    }
  };
  EventFollower(context, values.limits, open_services).follow([] {
    return "following the modem's events; Ctrl-C ends";
  });
}

}  // namespace

void add_events_command(CommandLine& line) {
  auto [command, values] = line.add("events", "follow the modem's events as they arrive", follow_events);
  values.limits.add_to(command);
  command.add_flag("--services", values.with_services, "also follow the SAR and NAS services going down and up");
}

}  // namespace pelmar::cli
