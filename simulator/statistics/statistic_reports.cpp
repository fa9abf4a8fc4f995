#include "statistics/statistic_reports.h"

#include "services/vs_service.h"

namespace pelmar::sim {

StatisticReports::StatisticReports(EventLoop& loop, Modem& modem, const ModemClock& clock, Reporters& reporters,
                                   const Statistics& statistics, Period period)
    : loop_(loop),
      modem_(modem),
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
  if (clock_.now() + period_ < due_) due_ = clock_.now() + period_;  // it went back
  send_due();
}

void StatisticReports::wait() {
  loop_.cancel(timer_);
  if (clock_.is_held()) return;
  timer_ = loop_.after(std::max(due_ - clock_.now(), ModemClock::Time{1}), [this] { send_due(); });
}

// A report that was missed is not made up for. The next one is waited for first, so that it also comes after one for
// which there is no memory.
void StatisticReports::send_due() {
  const auto now = clock_.now();
  const bool is_due = now >= due_;
  if (is_due) due_ += period_ * ((now - due_) / period_ + 1);
  wait();
  if (is_due) send_reports();
}

void StatisticReports::send_reports() {
  Modem::Slot* const slot = modem_.find_running(static_cast<uint8_t>(vs::kServiceId));
  if (slot == nullptr) return;
  const auto& service = static_cast<const VsService&>(*slot->service);
  for (uint32_t number = 0; number < Reporters::kMaxReporters; ++number) {
    Reporters::Reporter& reporter = reporters_.all()[number];
    if (!reporter.client || reporter.registered.empty()) continue;
    if (!service.wants(*reporter.client, vs::kReportAIndication)) continue;
    ++reporter.reports;
    // A client that is gone is noticed by a send to it, which ends its registrations at once.
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
