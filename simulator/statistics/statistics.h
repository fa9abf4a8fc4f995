// The values of the statistics. A field's number comes from the radio picture at the modem's time, unless the scenario
// gives it or the user has fixed it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "radio/radio_picture.h"
#include "scenario/scenario.h"
#include "statistics/statistic_rows.h"
#include "vs_messages.h"

namespace pelmar::sim {

class Statistics {
 public:
  Statistics(const ModemClock& clock, const RadioPictures& pictures) : clock_(clock), pictures_(pictures) {}

  // The sources of a value, in ascending precedence.
  enum class Source { kNone, kRadio, kScenario, kUser };

  // Fills in the record's value; its length is 0 where the modem has none for the identifier.
  Source read(StatisticKey key, vs::DataRecord& record) const;

  // Discards past events, such as an antenna switch; bytes that the user has fixed become zero.
  void clear(StatisticKey key);
  void restarted() { cleared_.clear(); }

  void fix(StatisticKey key, std::vector<uint8_t> bytes) { fixes_[key] = {std::move(bytes), {}}; }
  void fix(StatisticKey key, size_t field, double number);  // a field by its place in the identifier's row
  // Ends what fix() has done for the value.
  void release(StatisticKey key) { fixes_.erase(key); }

  // Begins now, in the place of an earlier one.
  void play(Scenario scenario) { scenario_ = Playing{std::move(scenario), clock_.now()}; }
  void stop_playing() { scenario_.reset(); }
  const Scenario* playing() const { return scenario_ ? &scenario_->scenario : nullptr; }
  double seconds_played() const;

  // The scenario's attenuation of all levels of a subscription, in dB.
  double attenuation(uint16_t sub) const;

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
  struct Value {
    Source source = Source::kNone;
    Numbers fields{};

    void replace(const std::array<std::optional<double>, kMaxFields>& by) {
      for (size_t i = 0; i < by.size(); ++i) fields[i] = by[i].value_or(fields[i]);
    }
  };

  RadioSample sample(StatisticKey key) const;
  Value value_of(StatisticKey key, const StatisticRow& row) const;

  const ModemClock& clock_;
  const RadioPictures& pictures_;
  std::map<StatisticKey, Fix> fixes_;
  std::map<StatisticKey, ModemClock::Time> cleared_;
  std::optional<Playing> scenario_;
};

}  // namespace pelmar::sim
