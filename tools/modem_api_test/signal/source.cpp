#include "signal/source.h"

#include <algorithm>

#include "failure.h"
#include "modem_hydra.h"
#include "services.h"
#include "signal/hydra_reading.h"

namespace pelmar::cli {

namespace {

constexpr uint32_t kSystemModeStatistic = 0x2C;
constexpr const char* kStep = "reading the modem's statistics";

// Whether the modem answers a request for a value.
modem_api_result probe() {
  stats_para_data data{};
  data.para_num = 1;
  data.entries[0].id = kSystemModeStatistic;
  return modem_hydra_get_stats_parameter(0, 0, &data);
}

}  // namespace

SignalSource::SignalSource(Session& session) : session_(session) {
  session_.open_hydra();
  check(probe(), kStep);
}

void SignalSource::come_back() {
  if (!is_present(service_of(MODEM_API_CLIENT_VS))) {
    problem_ = "its vendor-specific service is down";
    return;
  }
  try {
    session_.open_hydra();
    check(probe(), kStep);
    problem_.clear();
  } catch (const Failure& failure) {
    problem_ = failure.reason();
  }
}

// Also a modem that is back at once was away for one reading.
std::optional<Reading> SignalSource::read(std::span<const uint32_t> subs) {
  if (!problem_.empty()) come_back();
  if (!problem_.empty()) return std::nullopt;
  if (probe() == MODEM_API_SUCCESS) {
    Reading reading = read_signal(subs);
    const bool is_whole = std::all_of(reading.subs.begin(), reading.subs.end(),
                                      [](const SubscriptionReading& sub) { return sub.has_values(); });
    if (is_whole || probe() == MODEM_API_SUCCESS) return reading;
  }
  problem_ = "the connection is lost";
  return std::nullopt;
}

}  // namespace pelmar::cli
