// The reports of registered statistics, by the modem's clock.
//
// A statistics client id (0 to 9) is granted to the client that switches reporting on. It is void when that client
// switches reporting off or its own id is released. Once a period, each client that has registered identifiers and
// registered for the events gets, for each subscription with registrations: events 3 with ten values each, then event 4
// with a flag for each identifier that has a value. While the clock is held none is due; a jump makes one due at most.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>

#include "io/event_loop.h"
#include "qmi/modem.h"
#include "statistics/statistics.h"
#include "vs_messages.h"

namespace pelmar::sim {

// The statistics client ids: their owners, and the identifiers registered under them.
class Reporters {
 public:
  static constexpr uint32_t kMaxReporters = 10;
  static constexpr ptrdiff_t kMaxRegistered = vs::kMaxEventEntries;  // of a reporter, for each subscription

  struct Reporter {
    std::optional<uint8_t> client;  // nothing: not granted
    std::set<StatisticKey> registered;
    uint16_t reports = 0;
  };

  QmiError grant(uint8_t client, uint32_t& reporter);
  QmiError revoke(uint8_t client, uint32_t reporter);
  void client_gone(uint8_t client);
  void restarted() { reporters_ = {}; }

  // Without a subscription the identifiers are registered for both, and deregistered from both.
  QmiError add(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, std::span<const vs::StatsEntry> entries);
  QmiError remove(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, std::span<const uint32_t> ids);

  std::array<Reporter, kMaxReporters>& all() { return reporters_; }
  size_t granted() const;
  size_t registrations() const;

 private:
  // An error where the client has no such statistics client id, or there is no such subscription.
  QmiError find(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, Reporter*& found);

  std::array<Reporter, kMaxReporters> reporters_;
};

class VsService;

class StatisticReports {
 public:
  using Period = std::chrono::milliseconds;

  StatisticReports(EventLoop& loop, Modem& modem, const VsService& service, const ModemClock& clock,
                   Reporters& reporters, const Statistics& statistics, Period period);

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
  const VsService& service_;
  const ModemClock& clock_;
  Reporters& reporters_;
  const Statistics& statistics_;
  Period period_;
  ModemClock::Time due_;
  EventLoop::TimerId timer_{};
  vs::ReportAIndication values_{};
};

}  // namespace pelmar::sim
