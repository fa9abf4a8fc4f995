#include "modem_choice.h"

#include <cstdlib>
#include <cstring>

#include "environment.h"
#include "local_socket.h"
#include "own_modem.h"

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
  const int error = connect_local(socket_).error;
  return error == 0 ? "" : strerror(error);
}

}  // namespace pelmar::cli
