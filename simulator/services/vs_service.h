// The vendor-specific service (0xE4): pass-through, event reports, storage, statistics and control of the modem. The
// response to a pass-through command has the command's payload.
#pragma once

#include <bitset>
#include <cstdint>
#include <functional>

#include "qmi/service.h"
#include "statistics/reports.h"
#include "statistics/statistics.h"
#include "storage/storage.h"
#include "vs_messages.h"

namespace pelmar::sim {

class VsService final : public Service {
 public:
  // reset_modem is called for a client's reset request; it must reset the modem after the response was sent.
  VsService(Storage& storage, std::function<void()> reset_modem, Reporters& reporters, Statistics& statistics);

  // Whether the client has registered for the indication; every client gets the status indication.
  bool is_registered_for(uint8_t client, uint16_t indication) const;

  uint64_t shutdown_notices() const { return shutdown_notices_; }

  void client_gone(uint8_t client) override;
  void restarted() override;

 private:
  struct Handlers;

  static constexpr uint32_t kFeatureLimit = 256;  // clients can switch the features below it

  Storage& storage_;
  const std::function<void()> reset_modem_;
  Reporters& reporters_;
  Statistics& statistics_;
  std::bitset<256> reports_ab_;  // by client id
  std::bitset<256> reports_c_;
  std::bitset<kFeatureLimit> features_;
  uint64_t shutdown_notices_ = 0;
};

}  // namespace pelmar::sim
