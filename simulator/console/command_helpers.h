// What several groups of commands read and write in the same way.
#pragma once

#include <cstdint>
#include <string>

#include "console/commands.h"
#include "qmi/modem.h"

namespace pelmar::sim {

// A service by its name or number.
Modem::Slot& take_service(Simulation& simulation, Arguments& arguments);

// A message of the service by its name or number; a bare number need not be one that the service has.
uint16_t take_message(const Service* service, Arguments& arguments);

// "read-nv (0x0100)", or the number alone.
std::string message_text(const Service* service, uint16_t message);

}  // namespace pelmar::sim
