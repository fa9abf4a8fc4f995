// Numbers and bytes as text, in commands, options and files.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pelmar::sim {

// Decimal, or hexadecimal after 0x. Nothing for a text that is no number.
std::optional<uint64_t> parse_number(std::string_view text);

// Pairs of hexadecimal digits with any white space between pairs. Nothing for any other text.
std::optional<std::vector<uint8_t>> parse_hex(std::string_view text);

// Pairs of digits separated by spaces, sixteen pairs a line, each line ended. Empty for no bytes.
std::string to_hex_lines(std::span<const uint8_t> bytes);

inline std::span<const uint8_t> bytes_of(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

inline std::string_view text_of(std::span<const uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace pelmar::sim
