// Starts the installed qmi-proxy, which shares a modem's device among programs.
#pragma once

#include <string>

#include "deadline.h"
#include "handle.h"

namespace pelmar::platform {

// Starts the proxy unless the device is absent or this process has just tried. Returns an empty problem once the proxy
// accepts connections. The proxy continues after this process, and ends when no program has used it for a while.
Problem start_qmi_proxy(const std::string& device, const Deadline& deadline);

}  // namespace pelmar::platform
