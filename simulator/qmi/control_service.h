// The control service (service 0): versions, client ids, and the messages of a proxy. It has no client ids itself.
#pragma once

#include <cstdint>
#include <span>

#include "qmi/connection.h"
#include "qmi/modem.h"
#include "qmi/service.h"
#include "qmux.h"

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

// Writes the response's TLVs unless it returns an error.
QmiError handle_control(Modem& modem, Connection& connection, uint16_t message, std::span<const uint8_t> tlvs,
                        qmi::FrameWriter& response);

}  // namespace pelmar::sim
