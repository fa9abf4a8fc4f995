// shutdown-notice and reset: what concerns the modem as a whole.
#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
#include "json.h"
#include "options.h"

namespace pelmar::cli {

namespace {

struct ModemCommand {
  const char* name;
  const char* summary;
  const char* effect;  // what is asked about
  const char* step;
  const char* done;
  modem_api_result (*call)(int32_t client);
};

constexpr ModemCommand kCommands[] = {
    {"shutdown-notice", "notify the modem that the phone is about to power off",
     "The modem prepares for the phone's end.", "notifying the modem of the shutdown",
     "modem: notified of the shutdown", modem_api_notify_shutdown},
    {"reset", "reset the modem", "The modem restarts; every connection to it is lost for a while.",
     "resetting the modem", "modem: reset", modem_api_reset_modem},
};

}  // namespace

void add_modem_commands(CommandLine& line) {
  for (const ModemCommand& row : kCommands) {
    const auto act = [&row](const Context& context, const Confirmation& confirmation) {
      confirmation.require(row.effect);
      check(row.call(context.session.open(MODEM_API_CLIENT_VS)), row.step);
      context.output.print({{"done", row.name}}, row.done);
    };
    auto [command, confirmation] = line.add<Confirmation>(line.root(), row.name, row.summary, act);
    confirmation.add_to(command);
  }
}

}  // namespace pelmar::cli
