#include "commands/commands.h"

namespace pelmar::cli {

std::span<const AddCommands> command_families() {
  static constexpr AddCommands kFamilies[] = {
      add_info_command,   add_item_commands,  add_efs_sync_command, add_raw_command,       add_events_command,
      add_signal_command, add_hydra_commands, add_stats_commands,   add_cell_commands,     add_sar_commands,
      add_modem_commands, add_power_commands, add_ssr_commands,     add_property_commands,
  };
  return kFamilies;
}

}  // namespace pelmar::cli
