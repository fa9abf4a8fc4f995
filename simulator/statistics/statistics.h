// The statistics feature of the vendor-specific service: who reports, what is registered, and the values.
//
// A statistics client id (0 to 9) is granted to the service client that switches reporting on, and is void when that
// client switches it off or goes away. A value comes from the radio picture at the modem's time, unless the operator
// has fixed it or fields of it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "modem_clock.h"
#include "qmi/service.h"
#include "radio/radio_picture.h"
#include "statistics/statistic_rows.h"
#include "vs_messages.h"

namespace pelmar::sim {

class Statistics {
 public:
  static constexpr uint32_t kMaxReporters = 10;
  static constexpr ptrdiff_t kMaxRegistered = vs::kMaxEventEntries;  // of a reporter, for each subscription

  struct Key {
    uint16_t sub;
    uint32_t id;
    auto operator<=>(const Key&) const = default;
  };

  Statistics(const ModemClock& clock, const RadioPictures& pictures) : clock_(clock), pictures_(pictures) {}

  // --- who reports what ---

  struct Reporter {
    std::optional<uint8_t> client;  // nothing: not granted
    std::set<Key> registered;
    uint16_t reports = 0;
  };

  QmiError grant(uint8_t client, uint32_t& reporter);
  QmiError revoke(uint8_t client, uint32_t reporter);
  void client_gone(uint8_t client);
  void restarted();

  // Without a subscription the identifiers are registered for both, and deregistered from both.
  QmiError add(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, std::span<const vs::StatsEntry> entries);
  QmiError remove(uint8_t client, uint32_t reporter, std::optional<uint16_t> sub, std::span<const uint32_t> ids);

  std::array<Reporter, kMaxReporters>& reporters() { return reporters_; }
  size_t granted() const;
  size_t registrations() const;

  // --- values ---

  // Fills in the record's value; its length is 0 where the modem has none for the identifier.
  void read(Key key, vs::DataRecord& record) const;

  // What has happened counts from now on: an antenna switch before is forgotten, bytes that the operator fixed are
  // zero.
  void clear(Key key);

  void fix(Key key, std::vector<uint8_t> bytes);
  void fix(Key key, const StatisticField& field, double number);  // a field of the identifier
  // The value is the radio picture's again. False where nothing was fixed.
  bool release(Key key);

 private:
  struct Fix {
    std::optional<std::vector<uint8_t>> bytes;  // the whole value
    std::map<std::string_view, double> fields;
  };

  Reporter* find(uint8_t client, uint32_t reporter);
  RadioSample sample(Key key) const;

  const ModemClock& clock_;
  const RadioPictures& pictures_;
  std::array<Reporter, kMaxReporters> reporters_;
  std::map<Key, Fix> fixes_;
  std::map<Key, ModemClock::Time> cleared_;
};

}  // namespace pelmar::sim
