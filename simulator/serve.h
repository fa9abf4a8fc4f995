// The process that is the simulated modem.
#pragma once

#include "simulation.h"

namespace pelmar::sim {

// Serves until a signal, an operator or idleness ends it; then the socket files are gone. Throws std::runtime_error
// where it cannot begin.
void serve(const SimulationOptions& options);

}  // namespace pelmar::sim
