#include "services/statistics.h"

#include <algorithm>

namespace pelmar::sim {

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
}

QmiError Statistics::add(uint8_t client, uint32_t reporter, std::span<const vs::StatsEntry> entries) {
  Reporter* const found = find(client, reporter);
  if (found == nullptr) return QMI_ERR_INVALID_ID_V01;
  for (const vs::StatsEntry& entry : entries) found->entries[entry.stats_id] = entry;
  return QMI_ERR_NONE_V01;
}

QmiError Statistics::remove(uint8_t client, uint32_t reporter, std::span<const uint32_t> ids) {
  Reporter* const found = find(client, reporter);
  if (found == nullptr) return QMI_ERR_INVALID_ID_V01;
  size_t removed = 0;
  for (const uint32_t id : ids) removed += found->entries.erase(id);
  return removed == 0 ? QMI_ERR_NO_EFFECT_V01 : QMI_ERR_NONE_V01;
}

std::span<const uint8_t> Statistics::value(uint16_t sub, uint32_t id) const {
  const auto found = values_.find({sub, id});
  if (found == values_.end()) return {};
  return found->second;
}

void Statistics::set_value(uint16_t sub, uint32_t id, std::vector<uint8_t> bytes) {
  values_[{sub, id}] = std::move(bytes);
}

void Statistics::clear_value(uint16_t sub, uint32_t id) {
  const auto found = values_.find({sub, id});
  if (found != values_.end()) std::fill(found->second.begin(), found->second.end(), uint8_t{0});
}

size_t Statistics::reporters() const {
  return static_cast<size_t>(
      std::count_if(reporters_.begin(), reporters_.end(), [](const Reporter& r) { return r.client.has_value(); }));
}

size_t Statistics::registrations() const {
  size_t count = 0;
  for (const Reporter& reporter : reporters_) count += reporter.entries.size();
  return count;
}

}  // namespace pelmar::sim
