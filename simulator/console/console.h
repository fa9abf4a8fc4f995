// The control socket, over which the user's commands come, and its two ends: the modem's and that of `modem_sim ctl`.
//
// One line of text is a command, one line of JSON is its response. A response has "ok"; where that is false, it has
// "error", a text for the user. A line has a bound like all input of a peer, although the user is trusted.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "io/local_socket.h"

namespace pelmar::sim {

struct Simulation;

class Console {
 public:
  Console(const std::string& socket, Simulation& simulation);
  ~Console();

 private:
  class Session;

  Simulation& simulation_;
  std::map<Session*, std::unique_ptr<Session>> sessions_;
  LocalListener listener_;
};

enum ExitStatus { kExitSuccess = 0, kExitFailure = 1, kExitUsage = 2 };

// Sends one command and prints the response, as JSON on demand. Returns success only where the modem carried it out.
// Throws std::runtime_error where no whole response comes within 30 s, or one that is longer than a modem's.
ExitStatus send_control_command(const std::string& socket, const std::string& command, bool as_json);

}  // namespace pelmar::sim
