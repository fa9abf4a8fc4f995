// A run of the largest events for one client, numbered from 0: how a client's event path is measured and strained.
//
// The stream waits for a client that does not keep up, so nothing is lost, and it lets the others have their turn.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "io/event_loop.h"
#include "qmi/modem.h"
#include "vs_messages.h"

namespace pelmar::sim {

class EventStream {
 public:
  struct Plan {
    uint32_t count;
    std::chrono::microseconds interval;  // 0: as fast as the client reads
    std::optional<uint8_t> client;       // nothing: the first that asked for the event
  };

  EventStream(EventLoop& loop, Modem& modem) : loop_(loop), modem_(modem) {}

  // Ends an earlier stream. Returns the client, or nothing where there is none.
  std::optional<uint8_t> start(const Plan& plan);
  void stop();

  uint32_t sent() const { return next_; }

 private:
  Connection* receiver();
  void run(uint64_t stream);
  void send_next();
  uint32_t due() const;
  EventLoop::Clock::duration pause() const;

  EventLoop& loop_;
  Modem& modem_;
  Plan plan_{};
  uint8_t client_ = 0;
  uint32_t next_ = 0;
  uint64_t stream_ = 0;  // tells a wake-up of an earlier stream
  EventLoop::Clock::time_point started_;
  vs::ReportAIndication report_{};
};

}  // namespace pelmar::sim
