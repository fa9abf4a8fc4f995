#include "services/event_stream.h"

#include <algorithm>
#include <numeric>

namespace pelmar::sim {

namespace {

constexpr uint32_t kBurst = 4;  // indications in one round of the loop

// A wake-up by the timer costs more than an indication, so a fast stream wakes seldom and sends several at once.
constexpr std::chrono::microseconds kShortestPause{200};

void fill(vs::DataRecord& record, uint32_t id) {
  record.id = id;
  record.data_len = vs::kMaxDataBytes;
  std::iota(std::begin(record.data), std::end(record.data), static_cast<uint8_t>(id));
}

}  // namespace

std::optional<uint8_t> EventStream::start(const Plan& plan) {
  std::optional<uint8_t> found;
  modem_.find(service_.id())->clients.for_each([&](uint8_t client, Connection&) {
    const bool fits = plan.client ? client == *plan.client : service_.is_registered_for(client, vs::kReportAIndication);
    if (fits && !found) found = client;
  });
  if (!found) return std::nullopt;
  plan_ = plan;
  client_ = *found;
  next_ = 0;
  started_ = EventLoop::Clock::now();
  report_.record_count = vs::kMaxDataRecords;
  for (uint32_t i = 0; i < vs::kMaxDataRecords; ++i) fill(report_.records[i], i);
  report_.secondary_valid = 1;
  report_.secondary_count = vs::kMaxSecondaryDataRecords;
  for (uint32_t i = 0; i < vs::kMaxSecondaryDataRecords; ++i) fill(report_.secondary[i], i);
  report_.trailer_valid = 1;
  loop_.after({}, [this, stream = ++stream_] { run(stream); });
  return found;
}

void EventStream::stop() {
  plan_.count = next_;
  ++stream_;
}

// How many events are due by now.
uint32_t EventStream::due() const {
  if (plan_.interval.count() == 0) return plan_.count;
  const auto passed = (EventLoop::Clock::now() - started_) / plan_.interval + 1;
  return static_cast<uint32_t>(std::min<int64_t>(passed, plan_.count));
}

EventLoop::Clock::duration EventStream::pause() const {
  if (next_ < due()) return {};
  const auto next_due = started_ + plan_.interval * next_;
  return std::max<EventLoop::Clock::duration>(next_due - EventLoop::Clock::now(), kShortestPause);
}

void EventStream::run(uint64_t stream) {
  Modem::Slot* const slot = modem_.find_running(service_.id());
  Connection* const connection = slot == nullptr ? nullptr : slot->clients.owner(client_);
  if (stream != stream_ || connection == nullptr) return;
  const uint32_t end = std::min(due(), next_ + kBurst);
  while (next_ < end && connection->is_drained()) {
    report_.value = report_.trailer = next_++;
    modem_.indicate(*slot, client_, vs::kReportAIndication, &report_, sizeof report_);
  }
  if (next_ == plan_.count) return;
  const auto again = [this, stream] { run(stream); };
  if (!connection->is_drained()) return connection->when_drained(again);
  loop_.after(pause(), again);
}

}  // namespace pelmar::sim
