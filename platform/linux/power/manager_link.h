// A connection to the peripheral manager, and the query of the manager's status.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "deadline.h"
#include "manager_protocol.h"
#include "socket_stream.h"

namespace pelmar::platform::power {

// PELMAR_PM_SOCKET, else the socket that belongs to the modem's (PELMAR_MODEM); empty: the modem has none.
std::string manager_socket();

// One thread at a time sends and one at a time receives; the two may be different.
class ManagerLink {
 public:
  bool open(const std::string& socket, const Deadline& deadline) { return !stream_.connect(socket, deadline); }

  // False if the manager is gone or takes no bytes.
  bool send(const Request& request);

  // Receives the next reply. False if the manager is gone, sends anything else, or is too late.
  bool receive(Reply& reply, const Deadline& deadline);

  // Ends the current send or receive of another thread, and all later ones.
  void shut_down() { stream_.shut_down(); }

 private:
  SocketStream stream_;
  uint8_t bytes_[kMaxFrameBytes];
  size_t received_ = 0;
};

// The longest time for a response of the manager; a manager that takes longer counts as lost.
inline constexpr Deadline::Milliseconds kResponseTimeout{5000};

struct ManagerStatus {
  pm_event state;
  std::vector<VoterEntry> voters;
};

// Queries the manager, without becoming a voter. Nothing if no manager responds.
std::optional<ManagerStatus> query_status(const std::string& socket);

}  // namespace pelmar::platform::power
