#include "console/commands.h"

#include <array>
#include <exception>

namespace pelmar::sim {

namespace {

// The command whose name the line begins with; its words are taken.
const Command* take_command(Arguments& arguments) {
  for (const CommandGroup& group : command_groups()) {
    for (const Command& command : group.commands) {
      if (arguments.accept_words(command.name)) return &command;
    }
  }
  return nullptr;
}

Json refusal(const std::string& error) {
  return {{"ok", false}, {"error", error}};
}

Json wrong_usage(const std::string& error) {
  Json response = refusal(error);
  response["usage"] = true;
  return response;
}

}  // namespace

std::string usage_of(const Command& command) {
  return std::string(command.name) + (command.arguments.empty() ? "" : " ") + std::string(command.arguments);
}

std::span<const CommandGroup> command_groups() {
  static const auto groups = std::to_array<CommandGroup>({
      {"Services and the modem", service_commands()},
      {"Power and crashes", power_commands()},
      {"Faults of the next responses", fault_commands()},
      {"Indications", indication_commands()},
      {"Radio values over time", statistic_commands()},
      {"The rest", general_commands()},
  });
  return groups;
}

Json run_command(Simulation& simulation, std::string_view line) {
  Arguments arguments(line);
  if (arguments.is_empty()) return wrong_usage("empty command: 'help' lists the commands");
  const Command* const command = take_command(arguments);
  if (command == nullptr) {
    return wrong_usage("unknown command '" + std::string(line) + "': 'help' lists the commands");
  }
  try {
    Json response = {{"ok", true}};
    response.update(command->run(simulation, arguments));
    return response;
  } catch (const CommandError& error) {
    return wrong_usage(std::string(error.what()) + " (usage: " + usage_of(*command) + ")");
  } catch (const std::exception& error) {
    return refusal(error.what());
  }
}

}  // namespace pelmar::sim
