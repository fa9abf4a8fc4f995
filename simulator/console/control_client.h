// The operator's side of the control socket.
#pragma once

#include <string>

namespace pelmar::sim {

struct ControlClientOptions {
  std::string socket;
  std::string command;
  bool json = false;  // print the answer as it came
};

// Sends one command and prints its answer. Returns the exit status: 0 only where the modem did it. Throws
// std::runtime_error where no modem answers.
int send_control_command(const ControlClientOptions& options);

// The commands with their arguments, as text for --help.
std::string describe_commands();

}  // namespace pelmar::sim
