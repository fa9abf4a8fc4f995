// Commands about the modem's power, and its crashes.
#include "console/command_helpers.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

Json describe(const PeripheralManager& manager) {
  Json voters = Json::array();
  for (const auto& voter : manager.voters()) {
    voters.push_back({{"process", voter.process}, {"name", voter.voter}, {"votes", voter.votes}});
  }
  return {{"state", platform::power::state_text(manager.state())},
          {"votes", manager.votes()},
          {"overdue_acknowledgements", manager.overdue_acknowledgements()},
          {"voters", std::move(voters)}};
}

Json show_power(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  Json response = {{"power", simulation.power.has_power()}, {"crashed", simulation.power.is_crashed()}};
  response["manager"] = simulation.manager ? describe(*simulation.manager) : Json();
  return response;
}

Json crash(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  if (simulation.modem.state() == Modem::State::kOff) throw Refusal("the modem is off: 'power' shows why");
  const ModemPower::Crash crash = simulation.power.crash();
  Json response = {{"restart_level", crash.level}, {"restarts", crash.dump.empty()}};
  if (!crash.dump.empty()) response["dump"] = crash.dump;
  return response;
}

Json start(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  if (!simulation.power.start()) throw Refusal("no crash has left the modem down");
  return Json::object();
}

constexpr Command kCommands[] = {
    {"power", "", "whether the modem has power, and who votes for it", show_power},
    {"crash", "", "crash: it restarts alone, or leaves a dump and stays down, as the restart level says", crash},
    {"start", "", "start a modem that a crash has left down", start},
};

}  // namespace

std::span<const Command> power_commands() {
  return kCommands;
}

}  // namespace pelmar::sim
