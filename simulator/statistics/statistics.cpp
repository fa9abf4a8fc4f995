#include "statistics/statistics.h"

#include <algorithm>

namespace pelmar::sim {

namespace {

// Calls f(subscription) for the one that is named, or for all.
template <class F>
void for_each_subscription(std::optional<uint16_t> named, F f) {
  for (uint16_t sub = 0; sub < kSubscriptions; ++sub) {
    if (!named || *named == sub) f(sub);
  }
}

}  // namespace

// --- who reports what ---

Statistics::Reporter* Statistics::find(uint8_t client, uint32_t reporter) {
  if (reporter >= kMaxReporters || reporters_[reporter].client != client) return nullptr;
  return &reporters_[reporter];
}

QmiError Statistics::grant(uint8_t client, uint32_t& reporter) {
  const auto free = std::find_if(reporters_.begin(), reporters_.end(), [](const Reporter& r) { return !r.client; });
  if (free == reporters_.end()) return QMI_ERR_CLIENT_IDS_EXHAUSTED_V01;
  free->client = client;
  reporter = static_cast<uint32_t>(free - reporters_.begin());
  return QMI_ERR_NONE_V01;
}

QmiError Statistics::revoke(uint8_t client, uint32_t reporter) {
  Reporter* const found = find(client, reporter);
  if (found == nullptr) return QMI_ERR_INVALID_ID_V01;
  *found = {};
  return QMI_ERR_NONE_V01;
}

void Statistics::client_gone(uint8_t client) {
  for (Reporter& reporter : reporters_) {
    if (reporter.client == client) reporter = {};
  }
}

void Statistics::restarted() {
  reporters_ = {};
  cleared_.clear();
}

QmiError Statistics::add(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub,
                         std::span<const vs::StatsEntry> entries) {
  Reporter* const found = find(client, reporter);
  if (found == nullptr) return QMI_ERR_INVALID_ID_V01;
  if (sub && *sub >= kSubscriptions) return QMI_ERR_INVALID_ARG_V01;
  std::set<StatisticKey> registered = found->registered;
  for (const vs::StatsEntry& entry : entries) {
    for_each_subscription(sub, [&](uint16_t each) { registered.insert({each, entry.stats_id}); });
  }
  const auto of_second = registered.lower_bound({1, 0});
  const auto counts = {std::distance(registered.begin(), of_second), std::distance(of_second, registered.end())};
  if (std::max(counts) > kMaxRegistered) return QMI_ERR_REQUESTED_NUM_UNSUPPORTED_V01;
  found->registered = std::move(registered);
  return QMI_ERR_NONE_V01;
}

QmiError Statistics::remove(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub,
                            std::span<const uint32_t> ids) {
  Reporter* const found = find(client, reporter);
  if (found == nullptr) return QMI_ERR_INVALID_ID_V01;
  if (sub && *sub >= kSubscriptions) return QMI_ERR_INVALID_ARG_V01;
  size_t removed = 0;
  for (const uint32_t id : ids) {
    for_each_subscription(sub, [&](uint16_t each) { removed += found->registered.erase({each, id}); });
  }
  return removed == 0 ? QMI_ERR_NO_EFFECT_V01 : QMI_ERR_NONE_V01;
}

size_t Statistics::granted() const {
  return static_cast<size_t>(
      std::count_if(reporters_.begin(), reporters_.end(), [](const Reporter& r) { return r.client.has_value(); }));
}

size_t Statistics::registrations() const {
  size_t count = 0;
  for (const Reporter& reporter : reporters_) count += reporter.registered.size();
  return count;
}

// --- values ---

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

void Statistics::play(Scenario scenario) {
  scenario_ = Playing{std::move(scenario), clock_.now()};
}

void Statistics::Numbers::replace(const std::array<std::optional<double>, kMaxFields>& by) {
  for (size_t i = 0; i < by.size(); ++i) fields[i] = by[i].value_or(fields[i]);
}

Statistics::Numbers Statistics::numbers(StatisticKey key, const StatisticRow& row) const {
  const RadioSample radio = sample(key);
  Numbers numbers;
  for (size_t i = 0; i < row.fields.size(); ++i) numbers.fields[i] = row.fields[i].read(radio, row.carrier);
  if (row.is_there(radio, row.carrier)) numbers.source = Source::kRadio;
  if (const auto played = scenario_ ? scenario_->scenario.at(key, seconds_played()) : std::nullopt) {
    numbers.source = played->is_there ? Source::kScenario : Source::kNone;
    numbers.replace(played->fields);
  }
  const auto fix = fixes_.find(key);
  if (fix != fixes_.end()) {
    numbers.source = Source::kOperator;
    numbers.replace(fix->second.fields);
  }
  return numbers;
}

Statistics::Source Statistics::source(StatisticKey key) const {
  if (fixes_.contains(key)) return Source::kOperator;
  const StatisticRow* const row = find_statistic(key.id);
  return row != nullptr ? numbers(key, *row).source : Source::kNone;
}

void Statistics::read(StatisticKey key, vs::DataRecord& record) const {
  record.sub = key.sub;
  record.id = key.id;
  record.data_len = 0;
  const auto fix = fixes_.find(key);
  if (fix != fixes_.end() && fix->second.bytes) {
    record.data_len = static_cast<uint32_t>(fix->second.bytes->size());
    std::copy(fix->second.bytes->begin(), fix->second.bytes->end(), record.data);
    return;
  }
  const StatisticRow* const row = find_statistic(key.id);
  if (row == nullptr) return;
  const Numbers value = numbers(key, *row);
  if (value.source == Source::kNone) return;
  record.data_len = static_cast<uint32_t>(pack(*row, value.fields, record.data));
}

void Statistics::clear(StatisticKey key) {
  if (find_statistic(key.id) != nullptr) cleared_[key] = clock_.now();
  const auto fix = fixes_.find(key);
  if (fix == fixes_.end() || !fix->second.bytes) return;
  std::fill(fix->second.bytes->begin(), fix->second.bytes->end(), uint8_t{0});
}

void Statistics::fix(StatisticKey key, std::vector<uint8_t> bytes) {
  fixes_[key] = {std::move(bytes), {}};
}

void Statistics::fix(StatisticKey key, size_t field, double number) {
  Fix& fix = fixes_[key];
  fix.bytes.reset();
  fix.fields[field] = number;
}

bool Statistics::release(StatisticKey key) {
  return fixes_.erase(key) > 0;
}

}  // namespace pelmar::sim
