// The program's own simulated modem: one for each user, shared by all the user's runs, its storage kept between them.
//
//   $XDG_STATE_HOME/pelmar/modem/        storage (~/.local/state without XDG_STATE_HOME)
//   $XDG_RUNTIME_DIR/pelmar/modem-*.sock  socket, named for the storage (in the storage without XDG_RUNTIME_DIR)
//
// The modem runs detached and ends by itself when nobody has used it for a while.
#pragma once

#include <string>

#include "unique_fd.h"

namespace pelmar::cli {

struct OwnModem {
  std::string socket;
  std::string storage;
  UniqueFd guard;  // a connection; the modem does not end while it is open
};

// Connects to the modem and starts it where it does not run. Several programs may do this at once. Throws with the
// modem's own words where it does not start.
OwnModem reach_own_modem();

}  // namespace pelmar::cli
