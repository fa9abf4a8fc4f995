// A modem's character device, shared by the connections of this process.
//
// One process at a time has the device open. Each QmuxLink sends its frames to the device itself. The device's thread
// reads it, or the thread of a link that waits for a response, so that the response wakes no second thread. The reader
// keeps its own frames and passes the others to their links over sockets. The device is closed with its last link.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "deadline.h"
#include "handle.h"

namespace pelmar::platform {

class ModemDevice;

struct DeviceLink {
  ProcessFd socket;  // readable when a frame has arrived or the device is gone. Closing it ends the link.
  std::shared_ptr<ModemDevice> device = nullptr;
  uint64_t number = 0;   // of the link
  Problem problem = {};  // set if there is no socket
};

// Opens the device unless this process has it open, and makes a link to it.
DeviceLink connect_device(const std::string& path);

// Sends a frame without waiting. After kBlocked, flush_device() must return before the link's next frame.
SendStatus send_to_device(const DeviceLink& link, std::span<const uint8_t> frame);
SendStatus flush_device(const DeviceLink& link, const Deadline& deadline);

// Whether a response is awaited at the link's socket, without a receive_from_device().
void expect_from_device(const DeviceLink& link, bool is_expected);

// Receives at least one byte of frames for the link, from its socket or from the device.
ReadStatus receive_from_device(const DeviceLink& link, int socket, std::span<uint8_t> room, const Deadline& deadline,
                               size_t& received);

}  // namespace pelmar::platform
