// Bytes as hexadecimal text, for files and the operator.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pelmar::sim {

// Pairs of digits separated by spaces, sixteen pairs a line, each line ended. Nothing for no bytes.
std::string to_hex_lines(std::span<const uint8_t> bytes);

// Pairs of digits with any white space between pairs. Nothing for any other text.
std::optional<std::vector<uint8_t>> parse_hex(std::string_view text);

}  // namespace pelmar::sim
