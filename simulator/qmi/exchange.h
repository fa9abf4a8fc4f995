// One request in, one response out: what every message of every service goes through.
//
// The only place where bytes meet structures, where faults act, and where it is decided who may ask what. A request
// costs no allocation and one send; only faults may copy a frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "io/event_loop.h"
#include "qmi/connection.h"
#include "qmi/faults.h"
#include "qmi/modem.h"
#include "qmi/qmux.h"

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

  void on_frame(Connection& connection, const qmux::Frame& frame) override;
  void on_gone(Connection& connection, std::string_view reason) override;

  QmiError answer_control_message(Connection& connection, const qmux::Message& request);
  QmiError answer_service_message(Connection& connection, const qmux::Frame& frame, const qmux::Message& request);
  void deliver(Connection& connection, const qmux::Frame& frame, std::span<const uint8_t> response, const Fault& fault);
  void deliver_later(Connection& connection, const qmux::Frame& frame, std::span<const uint8_t> response,
                     EventLoop::Clock::duration delay);

  EventLoop& loop_;
  Modem& modem_;
  Faults& faults_;
  qmux::FrameWriter writer_;
  Structure request_;
  Structure response_;
  Counters counters_;
};

}  // namespace pelmar::sim
