#include "modem_choice.h"

#include <cstdlib>
#include <cstring>

#include "local_socket.h"
#include "own_modem.h"

namespace pelmar::cli {

namespace {

constexpr const char* kSocketVariable = "PELMAR_QMI_SOCKET";

std::string environment(const char* name) {
  const char* const value = getenv(name);
  return value != nullptr ? value : "";
}

}  // namespace

ModemChoice::ModemChoice(const std::string& named) : socket_(named.empty() ? environment(kSocketVariable) : named) {
  if (socket_.empty()) {
    OwnModem modem = reach_own_modem();
    socket_ = modem.socket;
    storage_ = modem.storage;
    guard_ = std::move(modem.guard);
  }
  setenv(kSocketVariable, socket_.c_str(), 1);
}

std::string ModemChoice::problem() const {
  const int error = connect_local(socket_).error;
  return error == 0 ? "" : strerror(error);
}

}  // namespace pelmar::cli
