// The statistics feature of the vendor-specific service: who reports, what is registered, and the values.
//
// A statistics client id (0 to 9) is granted to the service client that switches reporting on, and is void when that
// client switches it off or goes away.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "qmi/service.h"
#include "vs_messages.h"

namespace pelmar::sim {

class Statistics {
 public:
  static constexpr uint32_t kMaxReporters = 10;
  static constexpr uint16_t kSubscriptions = 2;

  QmiError grant(uint8_t client, uint32_t& reporter);
  QmiError revoke(uint8_t client, uint32_t reporter);
  void client_gone(uint8_t client);
  void restarted();

  // A repeated registration of an identifier replaces the earlier one.
  QmiError add(uint8_t client, uint32_t reporter, std::span<const vs::StatsEntry> entries);
  QmiError remove(uint8_t client, uint32_t reporter, std::span<const uint32_t> ids);

  // The value's bytes; none where the modem has no value for the identifier.
  std::span<const uint8_t> value(uint16_t sub, uint32_t id) const;
  void set_value(uint16_t sub, uint32_t id, std::vector<uint8_t> bytes);
  // The value counts from zero again.
  void clear_value(uint16_t sub, uint32_t id);

  size_t reporters() const;
  size_t registrations() const;

 private:
  struct Reporter {
    std::optional<uint8_t> client;  // nothing: not granted
    std::map<uint32_t, vs::StatsEntry> entries;
  };

  Reporter* find(uint8_t client, uint32_t reporter);

  std::array<Reporter, kMaxReporters> reporters_;
  std::map<std::pair<uint16_t, uint32_t>, std::vector<uint8_t>> values_;
};

}  // namespace pelmar::sim
