// Recordings of the client's command `signal`, as CSV or as JSON documents, made into scenarios that play the same
// readings.
#pragma once

#include <istream>
#include <string>

namespace pelmar::sim {

// Returns the text of a scenario. `name` is that of the recording, for messages. Lines that are cut or out of the order
// of time are left out, which is reported on standard error. Throws std::runtime_error, with the line of a mistake.
std::string scenario_of_recording(std::istream& recording, const std::string& name);

}  // namespace pelmar::sim
