#include "signal/history.h"

namespace pelmar::cli {

namespace {

constexpr std::chrono::seconds kColumn{1};

}  // namespace

void History::add_gap(Clock::time_point time) {
  if (is_started_ && time - started_ < kColumn) return;
  started_ = is_started_ && time - started_ < 2 * kColumn ? started_ + kColumn : time;
  is_started_ = true;
  for (auto& [key, levels] : levels_) {
    if (levels.size() == kMostColumns) levels.erase(levels.begin());
    levels.push_back(kNoLevel);
  }
}

void History::add(const Reading& reading, Clock::time_point time) {
  add_gap(time);
  for (const SubscriptionReading& sub : reading.subs) {
    for (const Carrier& carrier : sub.carriers) {
      std::vector<double>& levels = levels_[{sub.sub, carrier.name}];
      if (levels.empty()) levels.push_back(kNoLevel);
      levels.back() = strongest(carrier.rsrp);
    }
  }
}

std::span<const double> History::of(uint32_t sub, const CarrierName& carrier) const {
  const auto found = levels_.find({sub, carrier});
  if (found == levels_.end()) return {};
  return found->second;
}

}  // namespace pelmar::cli
