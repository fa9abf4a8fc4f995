// Starting the program modem_sim as a process that outlives this one.
#pragma once

#include <string>

namespace pelmar::cli {

// Starts modem_sim on that socket and storage, and returns once it serves; empty, or why it does not. The modem writes
// what it has to say to `log`. Throws where the program cannot be found.
std::string start_modem_process(const std::string& socket, const std::string& storage, const std::string& log);

}  // namespace pelmar::cli
