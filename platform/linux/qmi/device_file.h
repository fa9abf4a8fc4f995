// Opens the file of a modem's character device.
#pragma once

#include <string>

#include "handle.h"

namespace pelmar::platform {

// Opens the device for this process alone. If that fails, `problem` has the reason and a remedy.
ProcessFd open_device(const std::string& path, Problem& problem);

}  // namespace pelmar::platform
