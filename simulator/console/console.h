// The operator's socket: one line of text is a command, one line of JSON is the response.
//
// A response has "ok"; where that is false, "error" is a text for the operator. Operators are few and trusted, but a
// line has a bound like everything that comes from outside.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "console/commands.h"
#include "io/local_socket.h"
#include "io/stream.h"

namespace pelmar::sim {

class Console {
 public:
  Console(EventLoop& loop, WaitingOutput& output, const std::string& socket, Simulation& simulation);
  ~Console();

 private:
  class Session;

  EventLoop& loop_;
  WaitingOutput& output_;
  Simulation& simulation_;
  std::map<Session*, std::unique_ptr<Session>> sessions_;
  LocalListener listener_;
};

}  // namespace pelmar::sim
