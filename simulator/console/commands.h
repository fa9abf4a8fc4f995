// The operator's commands as rows: a name, how to write it, what it does.
#pragma once

#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>

#include "console/arguments.h"

namespace pelmar::sim {

struct Simulation;

using Json = nlohmann::ordered_json;

struct Command {
  std::string_view name;  // one word or several
  std::string_view arguments;
  std::string_view summary;
  // Throws CommandError or Refusal. Returns the response's fields; "ok" is added.
  Json (*run)(Simulation& simulation, Arguments& arguments);
};

// Its name and arguments.
std::string usage_of(const Command& command);

// The groups, in the order in which help shows them.
std::span<const Command> service_commands();
std::span<const Command> power_commands();
std::span<const Command> fault_commands();
std::span<const Command> indication_commands();
std::span<const Command> statistic_commands();
std::span<const Command> general_commands();

struct CommandGroup {
  std::string_view title;
  std::span<const Command> commands;
};
std::span<const CommandGroup> command_groups();

// Runs one line. The response to an unknown or wrong command has "usage" true.
Json run_command(Simulation& simulation, std::string_view line);

}  // namespace pelmar::sim
