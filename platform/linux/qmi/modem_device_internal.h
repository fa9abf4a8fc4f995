// The object behind the functions of modem_device.h: an open device with its thread and its links.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "deadline.h"
#include "handle.h"
#include "message_trace.h"
#include "qmux_link.h"
#include "reading_pause.h"

namespace pelmar::platform {

// One mutex guards all state. close_if_unused() waits for a reader's end while it holds the registry's mutex; no thread
// waits while it holds the device's.
class ModemDevice : public std::enable_shared_from_this<ModemDevice> {
 public:
  using Bytes = std::span<const uint8_t>;

  // The open devices of this process.
  struct Registry {
    std::mutex mutex;  // locked before that of a device
    std::map<std::string, std::shared_ptr<ModemDevice>> devices;

    static Registry& of_this_process() { return of_process<Registry>(); }
  };

  ModemDevice(std::string path, ProcessFd device);

  void start() {
    thread_.start([self = shared_from_this()] { self->run(); });
  }

  // Makes a link and returns its number. REQUIRES: the registry is locked.
  uint64_t add(ProcessFd socket);

  SendStatus send(uint64_t link, Bytes frame);
  SendStatus flush(uint64_t link, const Deadline& deadline);
  void expect(uint64_t link, bool is_expected);
  ReadStatus receive(uint64_t link, int socket, std::span<uint8_t> room, const Deadline& deadline, size_t& received);

 private:
  using Lock = std::unique_lock<std::mutex>;

  // The names of descriptors in the thread's poll. The name of a link is kDevice plus its number.
  static constexpr uint64_t kWakeUp = 0;
  static constexpr uint64_t kDevice = 1;

  struct Link {
    ProcessFd socket;
    std::vector<uint8_t> waiting = {};  // bytes that the link's socket does not take yet
    size_t unread = 0;                  // bytes that were sent to the socket and not received yet
    size_t dropped = 0;                 // frames that were dropped since the socket last took bytes
    bool expects = false;               // a response is awaited at the socket
    bool is_ended = false;
  };

  // The link whose thread reads the device. Its frames go to `room` until one does not fit; that one and later ones go
  // to its socket.
  struct Reader {
    uint64_t link = 0;  // 0: the device's thread reads
    std::span<uint8_t> room = {};
    size_t received = 0;
    bool is_full = false;
  };

  // A frame that the device does not take yet.
  struct Unwritten {
    uint64_t link;
    std::vector<uint8_t> bytes;
    bool has_begun;  // the device has a part of it
  };

  // A request to CTL whose response has not arrived.
  struct ControlRequest {
    uint64_t link = 0;  // 0: none
    uint8_t transaction = 0;
  };

  void run();
  bool close_if_unused(Lock& lock);
  void arm();
  void read_device();
  void write_device();
  void pass_on(const qmi::Frame& frame);
  void pass_control(const qmi::Frame& frame);
  void send_to(uint64_t number, Bytes bytes);
  void send_to_all(Bytes bytes);
  void flush(uint64_t number, Link& link);
  void erase_ended_links();
  void release_id(uint8_t service, uint8_t client);
  void watch(int operation, int descriptor, uint32_t events, uint64_t name) const;
  bool become_reader(uint64_t number, std::span<uint8_t> room);
  void end_reading();
  bool must_read_at_once() const;

  // Receives from a link's socket without waiting.
  static ReadStatus receive_now(int socket, std::span<uint8_t> room, size_t& received);

  static Bytes bytes_of(const qmi::Frame& frame) {
    return {frame.message.data() - qmi::kFrameHeaderLength, qmi::kFrameHeaderLength + frame.message.size()};
  }

  const std::string path_;
  const TraceLink trace_{path_, TraceLink::Sharing::kShared};
  ProcessFd poll_;  // an epoll descriptor: the thread's wake-up, the device, and the links' sockets
  FrameworkThread thread_;

  std::mutex mutex_;
  std::condition_variable changed_;  // everything is written, the device is gone, or a reader has ended
  ProcessFd device_;                 // none once it is gone or closed
  bool is_gone_ = false;
  FrameReader frames_;
  Reader reader_;
  bool is_read_armed_ = true;  // the thread's poll of the device waits for bytes to read
  ReadingPause pause_;
  size_t receivers_ = 0;  // the threads in receive() that do not read the device
  std::deque<Unwritten> unwritten_;
  std::map<uint64_t, Link> links_;  // by number, from 1
  uint64_t last_link_ = 0;
  std::map<std::pair<uint8_t, uint8_t>, uint64_t> owners_;  // links of client ids, by service and id
  std::array<ControlRequest, UINT8_MAX + 1> control_;       // by the transaction at the device
  uint8_t last_transaction_ = 0;
};

}  // namespace pelmar::platform
