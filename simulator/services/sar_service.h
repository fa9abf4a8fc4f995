// The SAR service (0x11): the transmit-power state that the phone asks for, kept until the modem restarts.
#pragma once

#include <array>
#include <cstdint>

#include "qmi/service.h"
#include "sar_messages.h"

namespace pelmar::sim {

class SarService final : public Service {
 public:
  static constexpr uint32_t kHighestState = 20;

  SarService();

  uint32_t state() const { return state_; }
  void restarted() override { state_ = 0; }

 private:
  static const std::array<MessageRow, 2> kMessages;

  QmiError set_state(uint8_t, const sar::RfSetStateRequest& request, sar::RfSetStateResponse&);
  QmiError get_state(uint8_t, const sar::RfGetStateRequest&, sar::RfGetStateResponse& response);

  uint32_t state_ = 0;
};

}  // namespace pelmar::sim
