// The statistics feature of the vendor-specific service: who reports, what is registered, and the values.
//
// A statistics client id (0 to 9) is granted to the service client that switches reporting on, and is void when that
// client switches it off or goes away. A value comes from the radio picture at the modem's time, unless the operator
// has fixed it or fields of it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "modem_clock.h"
#include "qmi/service.h"
#include "radio/radio_picture.h"
#include "scenario/scenario.h"
#include "statistics/statistic_rows.h"
#include "vs_messages.h"

namespace pelmar::sim {

class Statistics {
 public:
  static constexpr uint32_t kMaxReporters = 10;
  static constexpr ptrdiff_t kMaxRegistered = vs::kMaxEventEntries;  // of a reporter, for each subscription

  Statistics(const ModemClock& clock, const RadioPictures& pictures) : clock_(clock), pictures_(pictures) {}

  // --- who reports what ---

  struct Reporter {
    std::optional<uint8_t> client;  // nothing: not granted
    std::set<StatisticKey> registered;
    uint16_t reports = 0;
  };

  QmiError grant(uint8_t client, uint32_t& reporter);
  QmiError revoke(uint8_t client, uint32_t reporter);
  void client_gone(uint8_t client);
  void restarted();

  // Without a subscription the identifiers are registered for both, and deregistered from both.
  QmiError add(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, std::span<const vs::StatsEntry> entries);
  QmiError remove(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, std::span<const uint32_t> ids);

  std::array<Reporter, kMaxReporters>& reporters() { return reporters_; }
  size_t granted() const;
  size_t registrations() const;

  // --- values ---

  // Fills in the record's value; its length is 0 where the modem has none for the identifier.
  void read(StatisticKey key, vs::DataRecord& record) const;

  // What has happened counts from now on: an antenna switch before is forgotten, bytes that the operator fixed are
  // zero.
  void clear(StatisticKey key);

  void fix(StatisticKey key, std::vector<uint8_t> bytes);
  void fix(StatisticKey key, size_t field, double number);  // a field by its place in the identifier's row
  // Nothing of the value is fixed any more. False where nothing was.
  bool release(StatisticKey key);

  // Where the value comes from: of several, the highest.
  enum class Source { kNone, kRadio, kScenario, kOperator };
  Source source(StatisticKey key) const;

  // Begins now, in the place of an earlier one.
  void play(Scenario scenario);
  void stop_playing() { scenario_.reset(); }
  const Scenario* playing() const { return scenario_ ? &scenario_->scenario : nullptr; }
  double seconds_played() const;

 private:
  struct Fix {
    std::optional<std::vector<uint8_t>> bytes;  // the whole value
    std::array<std::optional<double>, kMaxFields> fields;
  };

  struct Playing {
    Scenario scenario;
    ModemClock::Time start;
  };

  // A value before it is packed.
  struct Numbers {
    Source source = Source::kNone;
    std::array<double, kMaxFields> fields{};

    void replace(const std::array<std::optional<double>, kMaxFields>& by);
  };

  Reporter* find(uint8_t client, uint32_t reporter);
  RadioSample sample(StatisticKey key) const;
  Numbers numbers(StatisticKey key, const StatisticRow& row) const;

  const ModemClock& clock_;
  const RadioPictures& pictures_;
  std::array<Reporter, kMaxReporters> reporters_;
  std::map<StatisticKey, Fix> fixes_;
  std::map<StatisticKey, ModemClock::Time> cleared_;
  std::optional<Playing> scenario_;
};

}  // namespace pelmar::sim
