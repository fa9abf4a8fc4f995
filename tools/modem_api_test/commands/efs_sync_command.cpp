// efs-sync: has the modem write its EFS to storage.
#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
#include "json.h"
#include "options.h"

namespace pelmar::cli {

namespace {

struct SyncValues {
  int8_t mode = 0;
  uint32_t value = 0;
  uint16_t option = 0;
};

void sync_efs(const Context& context, const SyncValues& values) {
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  check(modem_api_efs_sync(client, values.mode, values.value, values.option), "synchronising the EFS");
  context.output.print({{"synchronised", true}}, "EFS: synchronised");
}

}  // namespace

void add_efs_sync_command(CommandLine& line) {
  auto [command, values] = line.add("efs-sync", "have the modem write its EFS to storage", sync_efs);
  add_number(command, "--mode", values.mode, "the mode (0); only with 0 are the value and the option sent");
  add_number(command, "--value", values.value, "the value (0)");
  add_number(command, "--option", values.option, "the option (0)");
}

}  // namespace pelmar::cli
