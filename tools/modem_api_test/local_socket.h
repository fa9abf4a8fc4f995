// Connections to a modem's socket: a path, or "@name" of the abstract namespace.
#pragma once

#include <chrono>
#include <string>

#include "unique_fd.h"

namespace pelmar::cli {

struct LocalConnection {
  UniqueFd fd;
  int error;  // 0, or errno's reason for having none
};

LocalConnection connect_local(const std::string& name);

// Whether a modem answers there: asks it for its services, and waits that long for the first byte of the answer.
bool answers(const LocalConnection& connection, std::chrono::milliseconds patience);

}  // namespace pelmar::cli
