// The families of commands. A family is one source: it adds its commands to the command line.
#pragma once

#include <span>

namespace pelmar::cli {

class CommandLine;

using AddCommands = void (*)(CommandLine& line);

// In the order of the help text.
std::span<const AddCommands> command_families();

void add_info_command(CommandLine& line);
void add_item_commands(CommandLine& line);
void add_efs_sync_command(CommandLine& line);
void add_raw_command(CommandLine& line);
void add_events_command(CommandLine& line);
void add_signal_command(CommandLine& line);
void add_hydra_commands(CommandLine& line);
void add_stats_commands(CommandLine& line);
void add_cell_commands(CommandLine& line);
void add_sar_commands(CommandLine& line);
void add_modem_commands(CommandLine& line);
void add_power_commands(CommandLine& line);
void add_ssr_commands(CommandLine& line);
void add_property_commands(CommandLine& line);

}  // namespace pelmar::cli
