// Which modem the program talks to: the one that --modem or PELMAR_QMI_SOCKET names, else a simulated modem of its own.
#pragma once

#include <string>

#include "unique_fd.h"

namespace pelmar::cli {

class ModemChoice {
 public:
  // `named`: what --modem gave, or empty. Starts the program's own modem where none is named; throws where it cannot.
  // Passes the choice to the platform through the environment: call it before the library connects.
  explicit ModemChoice(const std::string& named);

  const std::string& socket() const { return socket_; }
  bool is_own() const { return !storage_.empty(); }
  const std::string& storage() const { return storage_; }  // of the own modem

  // Why nobody can be reached; empty when somebody serves the socket.
  std::string problem() const;

 private:
  std::string socket_;
  std::string storage_;
  UniqueFd guard_;  // a connection that keeps the own modem from ending as idle
};

}  // namespace pelmar::cli
