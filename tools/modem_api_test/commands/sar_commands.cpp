// sar set: the RF state of the SAR service, once, or held against restarts of the service.
//
// The library's connection to the service comes back by itself; the state does not: it belongs to the modem, which
// forgets it. So the holder sets it again each time that the service comes up.
#include <string>

#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
#include "json.h"
#include "options.h"
#include "time_text.h"

namespace pelmar::cli {

namespace {

struct SarValues {
  uint32_t state = 0;
  uint32_t hold_seconds = 0;
};

constexpr Advice kBadState = {MODEM_API_ERR_INVALID_PARAM, "The modem does not know that state."};

class Holder {
 public:
  Holder(const Context& context, const SarValues& values)
      : context_(context), state_(values.state), client_(context.session.open(MODEM_API_CLIENT_SAR)) {}

  void set() const {
    check(modem_api_set_sar_rf_state(client_, state_), "setting SAR RF state " + std::to_string(state_), {kBadState});
  }

  void report(WallClock::time_point time, const char* what, const std::string& text) const {
    context_.output.print({{"time", utc_text(time)}, {"sar", what}, {"state", state_}}, local_text(time) + "  " + text);
  }

  void hold(Clock::time_point deadline) const {
    const Signals::Follower follower(context_.signals);
    bool is_up = true;
    while (const auto arrival = context_.inbox.next(deadline)) {
      const bool comes_up = arrival->number == MODEM_API_NOTICE_SERVICE_UP;
      if (comes_up == is_up) continue;  // also the notice of the first connection
      is_up = comes_up;
      report(arrival->time, is_up ? "up" : "down", is_up ? "SAR service up again" : "SAR service down");
      if (is_up) set();
      if (is_up) report(WallClock::now(), "set", "SAR RF state " + std::to_string(state_) + " set again");
    }
    if (!is_up) throw Failure::of_result("holding the SAR RF state", MODEM_API_ERR_INVALID_CLIENT);
  }

 private:
  const Context& context_;
  const uint32_t state_;
  const int32_t client_;
};

void set_state(const Context& context, const SarValues& values) {
  const Holder holder(context, values);
  holder.set();
  const std::string text = "SAR RF state " + std::to_string(values.state) + " set";
  if (values.hold_seconds == 0) return context.output.print({{"state", values.state}}, text);
  holder.report(WallClock::now(), "set", text);
  holder.hold(Clock::now() + std::chrono::seconds(values.hold_seconds));
}

}  // namespace

void add_sar_commands(CommandLine& line) {
  CLI::App& group = line.add_group("sar", "the SAR service");
  auto [command, values] = line.add<SarValues>(group, "set", "set the RF state", set_state);
  add_number(command, "state", values.state, "the state")->required();
  add_number(command, "--hold", values.hold_seconds,
             "go on for that many seconds: set the state again each time the service comes back");
}

}  // namespace pelmar::cli
