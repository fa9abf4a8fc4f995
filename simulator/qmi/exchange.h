// One request in, one response out: what every message of every service goes through.
//
// The only place where bytes meet structures, where faults act, and where it is decided who may ask what. A request
// costs no allocation and one send; only faults may copy a frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "io/event_loop.h"
#include "qmi/connection.h"
#include "qmi/faults.h"
#include "qmi/modem.h"
#include "qmux.h"

namespace pelmar::sim {

class Exchange final : public Connection::Handler {
 public:
  struct Counters {
    uint64_t requests = 0;
    uint64_t failures = 0;  // responses with an error
    uint64_t faults = 0;    // requests that a fault row took
    uint64_t ignored = 0;   // frames that hold no request
    uint64_t dropped_connections = 0;
  };

  Exchange(EventLoop& loop, Modem& modem, Faults& faults) : loop_(loop), modem_(modem), faults_(faults) {}

  const Counters& counters() const { return counters_; }

 private:
  // A structure of any message, large enough for all of them.
  struct alignas(16) Structure {
    uint8_t bytes[16 * 1024];
  };

  // A response on its way, for whoever then still has the client id that it goes to.
  struct LateResponse {
    std::weak_ptr<Connection> receiver;
    uint8_t service;
    uint8_t client;
    std::vector<uint8_t> bytes;
  };

  struct HeldResponse {
    LateResponse response;
    EventLoop::TimerId limit;
  };

  void on_frame(Connection& connection, const qmi::Frame& frame) override;
  void on_gone(Connection& connection, std::string_view reason) override;

  QmiError answer_control_message(Connection& connection, const qmi::Message& request);
  QmiError answer_service_message(Connection& connection, const qmi::Frame& frame, const qmi::Message& request);
  void deliver(Connection& connection, const qmi::Frame& frame, std::span<const uint8_t> response, const Fault& fault);
  void hold_back(LateResponse response, EventLoop::Clock::duration limit);
  void send_held(const Connection& connection);
  void send_late(const LateResponse& response);

  EventLoop& loop_;
  Modem& modem_;
  Faults& faults_;
  std::array<uint8_t, qmi::kMaxFrameLength> frame_{};
  qmi::FrameWriter writer_{qmi::Direction::kFromModem, frame_};
  Structure request_;
  Structure response_;
  std::list<HeldResponse> held_;  // behind the next response of their connections
  Counters counters_;
};

}  // namespace pelmar::sim
