// The statistics values that have a name here: what their bytes mean, field by field, as the modem counts.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "text.h"

namespace pelmar::cli {

// "0x52 (lte-pcc)"; "0x99" for one without a name.
std::string statistic_text(uint32_t id);

// Adds "name", and "fields" with the fields that the value is long enough for, and returns these as text: "version 1,
// earfcn 1850, ...". Nothing for one without a name.
std::string put_statistic(Json& object, uint32_t id, std::span<const uint8_t> value);

}  // namespace pelmar::cli
