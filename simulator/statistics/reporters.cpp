#include "statistics/reporters.h"

#include <algorithm>
#include <iterator>

namespace pelmar::sim {

namespace {

// Calls f(subscription) for the one that is named, or for all.
template <typename F>
void for_each_subscription(std::optional<uint16_t> named, F f) {
  for (uint16_t sub = 0; sub < kSubscriptions; ++sub) {
    if (!named || *named == sub) f(sub);
  }
}

}  // namespace

Reporters::Reporter* Reporters::find(uint8_t client, uint32_t reporter) {
  if (reporter >= kMaxReporters || reporters_[reporter].client != client) return nullptr;
  return &reporters_[reporter];
}

QmiError Reporters::grant(uint8_t client, uint32_t& reporter) {
  const auto free = std::find_if(reporters_.begin(), reporters_.end(), [](const Reporter& r) { return !r.client; });
  if (free == reporters_.end()) return QMI_ERR_CLIENT_IDS_EXHAUSTED_V01;
  free->client = client;
  reporter = static_cast<uint32_t>(free - reporters_.begin());
  return QMI_ERR_NONE_V01;
}

QmiError Reporters::revoke(uint8_t client, uint32_t reporter) {
  Reporter* const found = find(client, reporter);
  if (found == nullptr) return QMI_ERR_INVALID_ID_V01;
  *found = {};
  return QMI_ERR_NONE_V01;
}

void Reporters::client_gone(uint8_t client) {
  for (Reporter& reporter : reporters_) {
    if (reporter.client == client) reporter = {};
  }
}

QmiError Reporters::add(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub,
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

QmiError Reporters::remove(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub,
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

size_t Reporters::granted() const {
  return static_cast<size_t>(
      std::count_if(reporters_.begin(), reporters_.end(), [](const Reporter& r) { return r.client.has_value(); }));
}

size_t Reporters::registrations() const {
  size_t count = 0;
  for (const Reporter& reporter : reporters_) count += reporter.registered.size();
  return count;
}

}  // namespace pelmar::sim
