// The reports of registered statistics, by the modem's clock.
//
// Once a period, each client that was granted a statistics client id, has registered something and asked for the events
// gets, for each subscription with registrations: the values in events 3, ten to an event, then event 4 that says which
// of them there are. While the clock is held nothing is due; after a jump one report is.
#pragma once

#include <chrono>
#include <cstdint>

#include "io/event_loop.h"
#include "modem_clock.h"
#include "qmi/modem.h"
#include "statistics/reporters.h"
#include "statistics/statistics.h"

namespace pelmar::sim {

class StatisticReports {
 public:
  using Period = std::chrono::milliseconds;

  StatisticReports(EventLoop& loop, Modem& modem, const ModemClock& clock, Reporters& reporters,
                   const Statistics& statistics, Period period);

  Period period() const { return period_; }
  void set_period(Period period);

  // The clock was held, moved or let run.
  void clock_changed();

 private:
  void send_due();
  void send_reports();
  void wait();
  void report(Modem::Slot& slot, uint8_t client, uint32_t reporter, uint16_t sub, const Reporters::Reporter& of);

  EventLoop& loop_;
  Modem& modem_;
  const ModemClock& clock_;
  Reporters& reporters_;
  const Statistics& statistics_;
  Period period_;
  ModemClock::Time due_;
  EventLoop::TimerId timer_{};
  vs::ReportAIndication values_{};
};

}  // namespace pelmar::sim
