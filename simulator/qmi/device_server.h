// The modem as a character device: a pseudo-terminal in raw mode, and a symbolic link to it at the user's path. It
// carries QMUX, as a USB modem's device does.
//
// The device is one connection. Like a USB modem, it keeps client ids when the program that has it open ends, and drops
// messages that no program reads. If the connection is closed, the device goes away and comes back, as if it was
// unplugged and plugged in again.
#pragma once

#include <memory>
#include <string>

#include "io/event_loop.h"
#include "qmi/connection.h"

namespace pelmar::sim {

class DeviceConnection;

class DeviceServer final {
 public:
  // Throws std::runtime_error if the device or its link cannot be made. The destructor removes the link.
  DeviceServer(EventLoop& loop, Connections& connections, std::string path);
  ~DeviceServer();
  DeviceServer(const DeviceServer&) = delete;
  DeviceServer& operator=(const DeviceServer&) = delete;

 private:
  friend class DeviceConnection;

  void plug_in();
  void unplug();
  void remove_link() const;

  EventLoop& loop_;
  Connections& connections_;
  const std::string path_;
  const UniqueFd reservation_;                    // of the path
  std::string terminal_;                          // the target of the link
  std::shared_ptr<DeviceConnection> connection_;  // null while the device is away
  EventLoop::TimerId timer_{};
};

}  // namespace pelmar::sim
