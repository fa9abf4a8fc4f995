#include "console/commands.h"

#include <array>
#include <exception>

namespace pelmar::sim {

namespace {

const Command* find_command(std::string_view name) {
  for (const CommandGroup& group : command_groups()) {
    for (const Command& command : group.commands) {
      if (command.name == name) return &command;
    }
  }
  return nullptr;
}

Json refusal(const std::string& error) {
  return {{"ok", false}, {"error", error}};
}

std::string usage_of(const Command& command) {
  return std::string(command.name) + (command.arguments.empty() ? "" : " ") + std::string(command.arguments);
}

}  // namespace

std::span<const CommandGroup> command_groups() {
  static const std::array<CommandGroup, 4> groups = {{
      {"Services and the modem", service_commands()},
      {"Faults of the next responses", fault_commands()},
      {"Indications", indication_commands()},
      {"The rest", general_commands()},
  }};
  return groups;
}

Json run_command(Simulation& simulation, std::string_view line) {
  Arguments arguments(line);
  if (arguments.is_empty()) return refusal("empty command: 'help' lists the commands");
  const std::string name = arguments.word("command");
  const Command* const command = find_command(name);
  if (command == nullptr) return refusal("unknown command '" + name + "': 'help' lists the commands");
  try {
    Json answer = {{"ok", true}};
    answer.update(command->run(simulation, arguments));
    return answer;
  } catch (const std::exception& error) {
    return refusal(std::string(error.what()) + " (usage: " + usage_of(*command) + ")");
  }
}

}  // namespace pelmar::sim
