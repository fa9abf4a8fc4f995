// QMUX frames as the two ends of a stream send them.
#pragma once

#include "messages.h"

namespace pelmar::fuzz {

enum class Direction : uint8_t { kToModem = 0x00, kFromModem = 0x80 };
enum class ControlKind : uint8_t { kRequest, kResponse, kIndication };

inline constexpr uint8_t kClient = 1;  // the client id in frames of services

// A message of the CTL service with one TLV.
Bytes control_frame(ControlKind kind, uint8_t transaction, uint16_t id, uint8_t tlv, Bytes value);

// A service's message: requests go to the modem, all others come from it.
Bytes service_frame(const CatalogueMessage& message, const Bytes& tlvs);

}  // namespace pelmar::fuzz
