// Modem events made from the vendor-specific service's indications.
#pragma once

#include <cstdint>

#include "modem_api.h"

namespace pelmar::vs {

// Converts a decoded indication and hands the event to the callback, once. False: the indication is no event.
bool deliver_event(uint32_t msg_id, const void* decoded, modem_api_event_cb event_cb);

}  // namespace pelmar::vs
