// The operator's side of the control socket.
#pragma once

#include <string>

namespace pelmar::sim {

struct ControlClientOptions {
  std::string socket;
  std::string command;
  bool json = false;  // print the response as JSON
};

enum ExitStatus { kExitSuccess = 0, kExitFailure = 1, kExitUsage = 2 };

// Sends one command and prints the response. Returns the exit status: success only where the modem did it. Throws
// std::runtime_error where no whole response comes within 30 s, or one that is longer than a modem's.
int send_control_command(const ControlClientOptions& options);

// The commands with their arguments, as text for --help.
std::string describe_commands();

}  // namespace pelmar::sim
