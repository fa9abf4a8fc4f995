#include "statistics/statistics.h"

#include <algorithm>

namespace pelmar::sim {

RadioSample Statistics::sample(StatisticKey key) const {
  RadioSample sample = pictures_[key.sub].sample(clock_.now());
  const auto cleared = cleared_.find(key);
  if (cleared != cleared_.end() && sample.antennas.switched_at <= cleared->second) {
    sample.antennas.previous_config = sample.antennas.config;
  }
  return sample;
}

double Statistics::seconds_played() const {
  if (!scenario_) return 0;
  return std::max(std::chrono::duration<double>(clock_.now() - scenario_->start).count(), 0.0);
}

double Statistics::attenuation(uint16_t sub) const {
  const auto played = scenario_ ? scenario_->scenario.at({sub, Scenario::kRadio}, seconds_played()) : std::nullopt;
  return played ? played->fields[0].value_or(0) : 0;
}

Statistics::Value Statistics::value_of(StatisticKey key, const StatisticRow& row) const {
  const RadioSample radio = sample(key);
  const bool is_there = row.is_there(radio, row.carrier);
  Value value{is_there ? Source::kRadio : Source::kNone, row.numbers_of(radio)};
  if (const auto played = scenario_ ? scenario_->scenario.at(key, seconds_played()) : std::nullopt) {
    value.source = played->is_there ? Source::kScenario : Source::kNone;
    value.replace(played->fields);
  }
  const auto fix = fixes_.find(key);
  if (fix != fixes_.end()) {
    value.source = Source::kUser;
    value.replace(fix->second.fields);
  }
  return value;
}

Statistics::Source Statistics::read(StatisticKey key, vs::DataRecord& record) const {
  record.sub = key.sub;
  record.id = key.id;
  record.data_len = 0;
  const auto fix = fixes_.find(key);
  if (fix != fixes_.end() && fix->second.bytes) {
    record.data_len = static_cast<uint32_t>(fix->second.bytes->size());
    std::copy(fix->second.bytes->begin(), fix->second.bytes->end(), record.data);
    return Source::kUser;
  }
  const StatisticRow* const row = find_statistic(key.id);
  if (row == nullptr) return Source::kNone;
  const Value value = value_of(key, *row);
  if (value.source != Source::kNone) record.data_len = static_cast<uint32_t>(pack(*row, value.fields, record.data));
  return value.source;
}

void Statistics::clear(StatisticKey key) {
  if (find_statistic(key.id) != nullptr) cleared_[key] = clock_.now();
  const auto fix = fixes_.find(key);
  if (fix == fixes_.end() || !fix->second.bytes) return;
  std::fill(fix->second.bytes->begin(), fix->second.bytes->end(), uint8_t{0});
}

void Statistics::fix(StatisticKey key, size_t field, double number) {
  Fix& fix = fixes_[key];
  fix.bytes.reset();
  fix.fields[field] = number;
}

}  // namespace pelmar::sim
