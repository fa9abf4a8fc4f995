// A process's connection to the peripheral manager, and the question how the manager counts.
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

// PELMAR_PM_SOCKET, else the socket beside the modem's (PELMAR_QMI_SOCKET).
std::string manager_socket();

// One thread at a time sends and one at a time receives; the two may be different.
class ManagerLink {
 public:
  bool open(const std::string& socket, const Deadline& deadline) { return stream_.connect(socket, deadline); }

  // False where the manager is gone or takes nothing.
  bool send(const Request& request);

  // The next reply. False where the manager is gone, sends what is no reply, or lets the deadline pass.
  bool receive(Reply& reply, const Deadline& deadline);

  // Makes a send or receive that is under way on another thread, and all later ones, end.
  void shut_down() { stream_.shut_down(); }

 private:
  SocketStream stream_;
  uint8_t bytes_[kMaxFrameBytes];
  size_t received_ = 0;
};

// How long the manager may take for an answer; one that takes longer counts as lost.
inline constexpr Deadline::Milliseconds kAnswerTimeout{5000};

struct Count {
  pm_event state;
  std::vector<VoterEntry> voters;
};

// Asks the manager, without becoming a voter. Nothing where none answers.
std::optional<Count> ask_for_count(const std::string& socket);

}  // namespace pelmar::platform::power
