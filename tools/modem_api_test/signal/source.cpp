#include "signal/source.h"

#include <algorithm>

#include "failure.h"
#include "modem_hydra.h"
#include "signal/hydra_reading.h"

namespace pelmar::cli {

namespace {

modem_api_result probe() {
  stats_para_data data = probe_request();
  return modem_hydra_get_stats_parameter(0, 0, &data);
}

void open(Session& session) {
  session.open_hydra();
  check(probe(), "reading the modem's statistics");
}

}  // namespace

SignalSource::SignalSource(Session& session) : link_([&session] { open(session); }, probe, true) {}

// Also a modem that is back at once was away for one reading.
std::optional<Reading> SignalSource::read(std::span<const uint32_t> subs) {
  if (!link_.is_up()) return std::nullopt;
  Reading reading = read_signal(subs);
  const bool is_whole = std::all_of(reading.subs.begin(), reading.subs.end(),
                                    [](const SubscriptionReading& sub) { return sub.has_values(); });
  if (!is_whole && !link_.is_up()) return std::nullopt;
  return reading;
}

}  // namespace pelmar::cli
