// The fetch of one statistics value, and the cursor that takes it apart field by field.
//
// A value is a packed sequence of little-endian fields, 1 to 700 bytes, without padding or alignment. There is one
// fetched value and one cursor in the process: a thread that fetches holds the decoder lock until it has taken the last
// field.
#pragma once

#include <cstdint>

#include "pelmar_lock.h"
#include "pelmar_log_site.h"

namespace pelmar {

// Held by a thread from before its fetch until after its last field. Not recursive.
extern Lock g_decoder_lock;

// One field of a value: its name in messages, its place in the record, and its bytes, both there and in the value.
struct MetricField {
  const char* name;
  uint16_t offset;
  uint8_t width;
};

// Fetches the value of a statistics identifier and sets the cursor to its start; opens hydra when it is closed.
// False for a failure, which is logged.
bool modem_hydra_data_get(uint32_t sub, uint32_t id);

// Takes the next field off the fetched value. False when the value is used up, which is logged at `decoder`, the
// function that decodes.
bool take_field(const log::Place& decoder, const MetricField& field, void* record);

}  // namespace pelmar
