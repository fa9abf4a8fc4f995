// A modem's character device, shared by the connections of this process.
//
// One process at a time has the device open. A thread of the device reads and writes it, and each QmuxLink has a socket
// to that thread: above it, a device behaves like a proxy. The device is closed with its last link.
#pragma once

#include <string>

#include "handle.h"

namespace pelmar::platform {

struct DeviceLink {
  ProcessFd socket;
  Problem problem;  // without a socket
};

// Opens the device unless this process has it open, and connects to it.
DeviceLink connect_device(const std::string& path);

}  // namespace pelmar::platform
