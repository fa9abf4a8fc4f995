// Handles the requests of all services, and sends a response to each.
//
// This is the only place where bytes are decoded into structures, where faults act, and where a client's right to send
// a request is checked. The control service (service 0), which has no clients, is here too. A request without a fault
// costs one send and, apart from its handler, no allocation.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "io/event_loop.h"
#include "qmi/connection.h"
#include "qmi/modem.h"
#include "qmux.h"
#include "replay/replay.h"

namespace pelmar::sim {

enum class FaultKind {
  kDelay,      // respond late
  kError,      // refuse with an error number, without doing anything
  kSilence,    // do it without a response
  kCut,        // send only the first bytes of the message, in a frame of that size
  kGarbage,    // send bytes that are no message instead
  kRepeat,     // respond twice
  kReorder,    // respond after the next response of the connection
  kCloseHalf,  // send half of the frame and close the connection
  kDieHalf,    // send half of the frame and end the process at once
};

// A fault that the user has set for responses.
struct Fault {
  explicit Fault(FaultKind what) : kind(what) {}

  FaultKind kind;
  std::chrono::milliseconds delay{};  // kReorder: the longest wait for the connection's next response
  uint16_t error = 0;
  size_t cut_to = 0;
  std::vector<uint8_t> garbage;

  // The responses that it takes; nothing: all.
  std::optional<uint8_t> service;
  std::optional<uint16_t> message;
  std::optional<uint64_t> times_left;
};

class Exchange final {
 public:
  struct Counters {
    uint64_t requests = 0;
    uint64_t failures = 0;  // responses with an error
    uint64_t faults = 0;    // requests that a fault row took
    uint64_t ignored = 0;   // frames without a request
    uint64_t dropped_connections = 0;
  };

  // replay: gives the responses instead of the services; null: none.
  Exchange(EventLoop& loop, Modem& modem, Replay* replay) : loop_(loop), modem_(modem), replay_(replay) {}

  const Counters& counters() const { return counters_; }

  // The first fault that fits a request decides.
  std::vector<Fault> faults;

  void on_frame(Connection& connection, const qmi::Frame& frame);
  // The last call for this connection.
  void on_closed(Connection& connection, std::string_view reason);

 private:
  // A structure of any message, large enough for all of them.
  struct alignas(16) Structure {
    uint8_t bytes[16 * 1024];
  };

  // Sent only if the connection has the client id at that time.
  struct LateResponse {
    std::weak_ptr<Connection> receiver;
    uint8_t service;
    uint8_t client;
    std::vector<uint8_t> bytes;
    EventLoop::TimerId limit;  // of one that is held back
  };

  std::optional<Fault> take_fault(uint8_t service, uint16_t message);
  // fault: a recorded delay or silence is put there, unless there is a fault already.
  QmiError respond_to_client(Connection& connection, const qmi::Frame& frame, const qmi::Message& request,
                             std::optional<Fault>& fault);
  QmiError respond_as_recorded(const qmi::Frame& frame, std::optional<Fault>& fault);
  void deliver(Connection& connection, const qmi::Frame& frame, std::span<const uint8_t> response, const Fault& fault);
  void send_held(const Connection& connection);
  void send_late(const LateResponse& response);

  EventLoop& loop_;
  Modem& modem_;
  Replay* const replay_;
  std::array<uint8_t, qmi::kMaxFrameLength> frame_{};
  qmi::FrameWriter writer_{qmi::Direction::kFromModem, frame_};
  Structure request_;
  Structure response_;
  std::list<LateResponse> held_;  // until the next responses of their connections
  Counters counters_;
};

}  // namespace pelmar::sim
