#include "service_pace.h"

#include <algorithm>
#include <chrono>
#include <iterator>

namespace pelmar::platform {
namespace {

using namespace std::chrono_literals;

constexpr ServicePace::Duration kLasting = 100ms;
constexpr ServicePace::Duration kFirstPause = 10ms;
constexpr ServicePace::Duration kLongestPause = 1s;

}  // namespace

ServicePace& ServicePace::of(uint32_t service) {
  constinit static ServicePace all[UINT8_MAX + 1];
  return all[service % std::size(all)];
}

void ServicePace::lost(Duration lifetime) {
  if (lifetime >= kLasting) return released(lifetime);
  if (remaining().count() > 0) return;  // another connection of the same announcement
  pause_ = std::clamp(2 * pause_.load(), kFirstPause, kLongestPause);
  held_until_ = Deadline::Clock::now().time_since_epoch() + pause_.load();
}

void ServicePace::released(Duration lifetime) {
  if (lifetime < kLasting) return;
  pause_ = Duration(0);
  held_until_ = Duration(0);
}

Deadline::Milliseconds ServicePace::remaining() const {
  const Duration rest = held_until_.load() - Deadline::Clock::now().time_since_epoch();
  return std::max(Deadline::Milliseconds(0), std::chrono::ceil<Deadline::Milliseconds>(rest));
}

}  // namespace pelmar::platform
