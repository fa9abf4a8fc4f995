// The callbacks with which hydra opens its client when its user gave none: both only log.
#pragma once

#include <cstdint>

namespace pelmar {

void modem_hydra_callback_event_cb(uint32_t event, const uint8_t* payload, uint32_t length);
void modem_hydra_operational_status_cb(uint32_t notice, uint32_t client_type);

}  // namespace pelmar
