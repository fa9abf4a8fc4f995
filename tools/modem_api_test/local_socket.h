// What the program finds out about a modem's socket by itself, beside the library's connections.
#pragma once

#include <chrono>
#include <string>

#include "unix_socket.h"

namespace pelmar::cli {

// Whether a modem responds there: requests its list of services, and waits that long for the first byte of the
// response.
bool responds(const UnixConnection& connection, std::chrono::milliseconds patience);

// Why the process that serves the socket cannot be used, and what to do: another user whom this one does not trust or
// who does not admit this one, or a process that accepts nobody. Empty where there is no such obstacle, and where
// nobody serves.
std::string find_obstacle(const std::string& name);

}  // namespace pelmar::cli
