// Numbers as text, for files and the operator.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace pelmar::sim {

// Decimal, or hexadecimal after 0x. Nothing for a text that is no number.
std::optional<uint64_t> parse_number(std::string_view text);

}  // namespace pelmar::sim
