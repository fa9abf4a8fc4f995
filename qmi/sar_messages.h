// The structures of the SAR service's messages (0x11), as their users fill and read them. The sizes and offsets are
// those of the phone's SAR service.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common_v01.h"
#include "specific_absorption_rate_v01.h"

namespace pelmar::sar {

struct RfSetStateRequest {
  uint32_t state;
  uint8_t undescribed[28];  // of TLVs that are not used here
};
static_assert(sizeof(RfSetStateRequest) == 32 && offsetof(RfSetStateRequest, state) == 0);

struct RfSetStateResponse {
  qmi_response_type_v01 header;
};
static_assert(sizeof(RfSetStateResponse) == 8);

struct RfGetStateRequest {
  uint8_t unused;
};
static_assert(sizeof(RfGetStateRequest) == 1);

struct RfGetStateResponse {
  qmi_response_type_v01 header;
  uint8_t state_valid;
  uint32_t state;
};
static_assert(sizeof(RfGetStateResponse) == 16);
static_assert(offsetof(RfGetStateResponse, state_valid) == 8 && offsetof(RfGetStateResponse, state) == 12);

}  // namespace pelmar::sar
