#include "statistics/reports.h"

#include <algorithm>
#include <iterator>

#include "services/vs_service.h"

namespace pelmar::sim {

namespace {

// Calls f(subscription) for that one or, without one, for all.
template <typename F>
void for_each_subscription(std::optional<uint16_t> named, F f) {
  for (uint16_t sub = 0; sub < kSubscriptions; ++sub) {
    if (!named || *named == sub) f(sub);
  }
}

}  // namespace

QmiError Reporters::find(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, Reporter*& found) {
  if (reporter >= kMaxReporters || reporters_[reporter].client != client) return QMI_ERR_INVALID_ID_V01;
  if (sub && *sub >= kSubscriptions) return QMI_ERR_INVALID_ARG_V01;
  found = &reporters_[reporter];
  return QMI_ERR_NONE_V01;
}

QmiError Reporters::grant(uint8_t client, uint32_t& reporter) {
  const auto free = std::find_if(reporters_.begin(), reporters_.end(), [](const Reporter& r) { return !r.client; });
  if (free == reporters_.end()) return QMI_ERR_CLIENT_IDS_EXHAUSTED_V01;
  free->client = client;
  reporter = static_cast<uint32_t>(free - reporters_.begin());
  return QMI_ERR_NONE_V01;
}

QmiError Reporters::revoke(uint8_t client, uint32_t reporter) {
  Reporter* found = nullptr;
  if (const QmiError error = find(client, reporter, {}, found)) return error;
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
  Reporter* found = nullptr;
  if (const QmiError error = find(client, reporter, sub, found)) return error;
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
  Reporter* found = nullptr;
  if (const QmiError error = find(client, reporter, sub, found)) return error;
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

StatisticReports::StatisticReports(EventLoop& loop, Modem& modem, const VsService& service, const ModemClock& clock,
                                   Reporters& reporters, const Statistics& statistics, Period period)
    : loop_(loop),
      modem_(modem),
      service_(service),
      clock_(clock),
      reporters_(reporters),
      statistics_(statistics),
      period_(period),
      due_(clock.now() + period) {
  wait();
}

void StatisticReports::set_period(Period period) {
  period_ = period;
  due_ = clock_.now() + period;
  wait();
}

void StatisticReports::clock_changed() {
  if (clock_.now() + period_ < due_) due_ = clock_.now() + period_;  // the clock went back
  send_due();
}

void StatisticReports::wait() {
  loop_.cancel(timer_);
  if (clock_.is_held()) return;
  timer_ = loop_.after(std::max(due_ - clock_.now(), ModemClock::Time{1}), [this] { send_due(); });
}

// Missed reports are not sent later. The next timer is set before the report is built, so that a failed allocation does
// not end the reports.
void StatisticReports::send_due() {
  const auto now = clock_.now();
  const bool is_due = now >= due_;
  if (is_due) due_ += period_ * ((now - due_) / period_ + 1);
  wait();
  if (is_due) send_reports();
}

void StatisticReports::send_reports() {
  Modem::Slot* const slot = modem_.find_running(service_.id());
  if (slot == nullptr) return;
  for (uint32_t number = 0; number < Reporters::kMaxReporters; ++number) {
    Reporters::Reporter& reporter = reporters_.all()[number];
    if (!reporter.client || reporter.registered.empty()) continue;
    if (!service_.is_registered_for(*reporter.client, vs::kReportAIndication)) continue;
    ++reporter.reports;
    // The copy stays valid when a send closes the client's connection, which ends its registrations.
    const uint8_t client = *reporter.client;
    const Reporters::Reporter copy = reporter;
    for (uint16_t sub = 0; sub < kSubscriptions; ++sub) report(*slot, client, number, sub, copy);
  }
}

void StatisticReports::report(Modem::Slot& slot, uint8_t client, uint32_t reporter, uint16_t sub,
                              const Reporters::Reporter& of) {
  vs::ReportBIndication presence{};
  presence.value = reporter;
  presence.first = sub;
  presence.second = of.reports;
  const auto send_values = [&] {
    modem_.indicate(slot, client, vs::kReportAIndication, &values_, sizeof values_);
    values_.record_count = 0;
  };
  values_ = {};
  values_.value = reporter;
  values_.trailer_valid = 1;
  values_.trailer = static_cast<uint32_t>(clock_.now().count());
  for (const StatisticKey& key : of.registered) {
    if (key.sub != sub) continue;
    vs::DataRecord& record = values_.records[values_.record_count++];
    statistics_.read(key, record);
    presence.entries[presence.entry_count++] = record.data_len > 0;
    if (values_.record_count == vs::kMaxDataRecords) send_values();
  }
  if (presence.entry_count == 0) return;
  if (values_.record_count > 0) send_values();
  modem_.indicate(slot, client, vs::kReportBIndication, &presence, sizeof presence);
}

}  // namespace pelmar::sim
