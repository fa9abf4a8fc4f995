#include "modem_choice.h"

#include <cstdlib>

#include "environment.h"
#include "own_modem.h"
#include "unix_socket.h"

namespace pelmar::cli {

ModemChoice::ModemChoice(const std::string& named)
    : socket_(named.empty() ? environment(kModemSocketVariable) : named) {
  if (socket_.empty()) {
    OwnModem modem = reach_own_modem();
    socket_ = modem.socket;
    storage_ = modem.storage;
    guard_ = std::move(modem.guard);
  }
  setenv(kModemSocketVariable, socket_.c_str(), 1);
}

std::string ModemChoice::problem() const {
  return connect_unix(socket_).problem;
}

}  // namespace pelmar::cli
