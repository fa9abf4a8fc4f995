// Who reports statistics, and which.
//
// A statistics client id (0 to 9) is granted to the service client that switches reporting on, and is void when that
// client switches it off or goes away.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>

#include "qmi/service.h"
#include "statistics/statistic_rows.h"
#include "vs_messages.h"

namespace pelmar::sim {

class Reporters {
 public:
  static constexpr uint32_t kMaxReporters = 10;
  static constexpr ptrdiff_t kMaxRegistered = vs::kMaxEventEntries;  // of a reporter, for each subscription

  struct Reporter {
    std::optional<uint8_t> client;  // nothing: not granted
    std::set<StatisticKey> registered;
    uint16_t reports = 0;
  };

  QmiError grant(uint8_t client, uint32_t& reporter);
  QmiError revoke(uint8_t client, uint32_t reporter);
  void client_gone(uint8_t client);
  void restarted() { reporters_ = {}; }

  // Without a subscription the identifiers are registered for both, and deregistered from both.
  QmiError add(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, std::span<const vs::StatsEntry> entries);
  QmiError remove(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, std::span<const uint32_t> ids);

  std::array<Reporter, kMaxReporters>& all() { return reporters_; }
  size_t granted() const;
  size_t registrations() const;

 private:
  Reporter* find(uint8_t client, uint32_t reporter);

  std::array<Reporter, kMaxReporters> reporters_;
};

}  // namespace pelmar::sim
