// events: follows everything that the modem reports by itself, until a count, a time, or Ctrl-C.
#include <functional>
#include <string>
#include <vector>

#include "command_line.h"
#include "commands/commands.h"
#include "event_follower.h"
#include "services.h"

namespace pelmar::cli {

namespace {

struct EventValues {
  FollowLimits limits;
  bool with_services = false;
};

void follow_events(const Context& context, const EventValues& values) {
  // Events do not need the other services: each is opened as soon as it is there.
  std::vector<modem_api_client_type> absent;
  const auto open_services = [&] {
    std::erase_if(absent, [&](modem_api_client_type type) {
      if (!is_present(service_of(type))) return false;
      try {
        context.session.open(type);
        return true;
      } catch (const Failure&) {
        return false;
      }
    });
  };
  const auto prepare = [&](int32_t) {
    if (values.with_services) absent = {MODEM_API_CLIENT_SAR, MODEM_API_CLIENT_NAS_0, MODEM_API_CLIENT_NAS_1};
    open_services();
  };
  const auto tend = values.with_services ? std::function<void()>(open_services) : nullptr;
  EventFollower(context, values.limits, {prepare, tend, {}}).follow([&] {
    std::string text = "following the modem's events; Ctrl-C ends";
    for (const auto type : absent) text += std::string("; ") + service_of(type).title + " is down";
    return text;
  });
}

}  // namespace

void add_events_command(CommandLine& line) {
  auto [command, values] = line.add("events", "follow the modem's events as they arrive", follow_events);
  values.limits.add_to(command);
  command.add_flag("--services", values.with_services, "also follow the SAR and NAS services going down and up");
}

}  // namespace pelmar::cli
