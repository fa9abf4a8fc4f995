// The control service (service 0): what is there, client ids, and the messages of a proxy. It has no client ids itself.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "qmi/connection.h"
#include "qmi/modem.h"
#include "qmi/service.h"

namespace pelmar::sim {

enum ControlMessageId : uint16_t {
  kControlGetVersionInfo = 0x0021,
  kControlAllocateClientId = 0x0022,
  kControlReleaseClientId = 0x0023,
  kControlRevokeClientId = 0x0024,
  kControlSetDataFormat = 0x0026,
  kControlSync = 0x0027,
  kControlProxyOpen = 0xFF00,
};

// At most one TLV besides the result.
struct ControlAnswer {
  uint8_t tlv = 0;  // 0: none
  uint8_t size = 0;
  std::array<uint8_t, 32> value{};
};

QmiError answer_control(Modem& modem, Connection& connection, uint16_t message, std::span<const uint8_t> tlvs,
                        ControlAnswer& answer);

}  // namespace pelmar::sim
