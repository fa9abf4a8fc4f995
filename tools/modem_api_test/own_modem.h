// Which modem the program uses: the one that --modem or PELMAR_MODEM names, else a simulated modem of its own, one for
// each user, shared by all the user's runs, its storage kept between them.
//
//   $XDG_STATE_HOME/pelmar/modem/        storage (~/.local/state without XDG_STATE_HOME)
//   $XDG_RUNTIME_DIR/pelmar/modem-*.sock  socket, named for the storage (in the storage without XDG_RUNTIME_DIR)
//
// That modem runs detached and ends by itself when no program has used it for a while.
#pragma once

#include <string>

#include "unique_fd.h"

namespace pelmar::cli {

struct Modem {
  std::string address;  // a form of --modem
  std::string storage;  // of the own modem; empty for another
  std::string log;      // the same
  UniqueFd guard;       // a connection: the own modem does not end while it is open
};

// `named`: what --modem gave, or empty. Passes the choice to the platform through the environment: call it before the
// library connects. Several programs may start the own modem at once. Throws with what the modem logged where it does
// not start.
Modem choose_modem(const std::string& named);

// Ends the own modem, which keeps its storage. False where none runs. Throws where it does not end.
bool stop_own_modem();

// Why the process that serves the socket cannot be used, and what to do: another user whom this one does not trust or
// who does not admit this one, or a process that does not accept connections. Empty if there is no such obstacle, or no
// process listens.
std::string find_obstacle(const std::string& name);

}  // namespace pelmar::cli
