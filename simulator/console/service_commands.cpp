// Commands that take services and the whole modem down and up.
#include "console/command_helpers.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

constexpr uint64_t kMaxStartingMs = 3'600'000;

Json switch_service(Simulation& simulation, Arguments& arguments) {
  Modem::Slot& slot = take_service(simulation, arguments);
  const std::string state = arguments.word("up or down");
  arguments.end();
  if (state != "up" && state != "down") throw CommandError("'" + state + "' is neither up nor down");
  const size_t clients = slot.clients.count();
  if (state == "up") simulation.modem.bring_up(slot);
  if (state == "down") simulation.modem.take_down(slot);
  return {{"service", slot.service->name()}, {"up", slot.is_up}, {"revoked", clients - slot.clients.count()}};
}

Json restart(Simulation& simulation, Arguments& arguments) {
  const uint64_t ms = arguments.is_empty() ? 0 : arguments.number("MS", kMaxStartingMs);
  arguments.end();
  if (simulation.modem.state() == Modem::State::kOff) throw Refusal("the modem is off: 'power' shows why");
  simulation.modem.restart(std::chrono::milliseconds(ms));
  return {{"starting_ms", ms}, {"connections_told", simulation.connections.count()}};
}

constexpr Command kCommands[] = {
    {"service", "SERVICE up|down", "take a service down (its clients are revoked) or up again", switch_service},
    {"restart", "[MS]", "restart the whole modem; it is not ready for MS milliseconds (0)", restart},
};

}  // namespace

std::span<const Command> service_commands() {
  return kCommands;
}

}  // namespace pelmar::sim
