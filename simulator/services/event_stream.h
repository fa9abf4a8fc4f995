// A stream of the largest events for one client, numbered from 0. It measures a client's event path under full load.
//
// The stream waits while the client has not read the earlier events, so no event is lost. It sends a few at a time, so
// that the modem serves its other clients in between.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "io/event_loop.h"
#include "qmi/modem.h"
#include "services/vs_service.h"

namespace pelmar::sim {

class EventStream {
 public:
  struct Plan {
    uint32_t count;
    std::chrono::microseconds interval;  // 0: as fast as the client reads
    std::optional<uint8_t> client;       // nothing: the first that has registered for the event
  };

  EventStream(EventLoop& loop, Modem& modem, const VsService& service)
      : loop_(loop), modem_(modem), service_(service) {}

  // Ends an earlier stream. Returns the client, or nothing where there is none.
  std::optional<uint8_t> start(const Plan& plan);
  void stop();

  uint32_t sent() const { return next_; }

 private:
  void run(uint64_t stream);
  uint32_t due() const;
  EventLoop::Clock::duration pause() const;

  EventLoop& loop_;
  Modem& modem_;
  const VsService& service_;
  Plan plan_{};
  uint8_t client_ = 0;
  uint32_t next_ = 0;
  uint64_t stream_ = 0;  // the stream's number, by which a timer of an earlier stream is recognised
  EventLoop::Clock::time_point started_;
  vs::ReportAIndication report_{};
};

}  // namespace pelmar::sim
