// The statistics values that have a name here: what their bytes mean, field by field, as the modem counts.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "text.h"

namespace pelmar::cli {

// A name as in "lte-pcc", or a number. Nothing for anything else.
std::optional<uint32_t> parse_statistic(const std::string& word);

std::vector<std::string> statistic_names();

// "0x52 (lte-pcc)"; "0x99" for one without a name.
std::string statistic_text(uint32_t id);

// Adds "name", and "fields" with the fields that the value is long enough for; nothing for one without a name.
void put_statistic(Json& object, uint32_t id, std::span<const uint8_t> value);

// "version 1, earfcn 1850, ..."; empty for one without a name.
std::string statistic_fields_text(uint32_t id, std::span<const uint8_t> value);

}  // namespace pelmar::cli
