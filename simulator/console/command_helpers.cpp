#include "console/command_helpers.h"

#include <cstdio>

#include "io/numbers.h"
#include "simulation.h"

namespace pelmar::sim {

Modem::Slot& take_service(Simulation& simulation, Arguments& arguments) {
  const std::string text = arguments.word("SERVICE");
  const auto number = parse_number(text);
  Modem::Slot* slot = nullptr;
  if (!number) slot = simulation.modem.find(text);
  if (number && *number <= 0xFF) slot = simulation.modem.find(static_cast<uint8_t>(*number));
  if (slot != nullptr) return *slot;
  std::string names;
  for (const Modem::Slot& each : simulation.modem.slots()) {
    names.append(names.empty() ? "" : ", ").append(each.service->name());
  }
  throw CommandError("no service '" + text + "': there are " + names);
}

uint16_t take_message(const Service* service, Arguments& arguments) {
  const std::string text = arguments.word("MESSAGE");
  const auto number = parse_number(text);
  if (number && *number <= 0xFFFF) return static_cast<uint16_t>(*number);
  if (service != nullptr) {
    for (const MessageRow& row : service->messages()) {
      if (row.name == text) return row.id;
    }
  }
  std::string names;
  if (service != nullptr) {
    for (const MessageRow& row : service->messages())
      names.append(names.empty() ? " or one of " : ", ").append(row.name);
  }
  throw CommandError("no message '" + text + "': a number such as 0x0100" + names + " is expected");
}

std::string message_text(const Service* service, uint16_t message) {
  char number[16];
  snprintf(number, sizeof number, "0x%04x", message);
  const MessageRow* const row = service != nullptr ? service->find(message) : nullptr;
  return row != nullptr ? std::string(row->name) + " (" + number + ")" : number;
}

}  // namespace pelmar::sim
