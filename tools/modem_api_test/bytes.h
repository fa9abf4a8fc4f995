// Bytes as text: hexadecimal digits both ways, dumps for people, and the JSON form that every command uses.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "json_fwd.h"

namespace pelmar::cli {

using Bytes = std::vector<uint8_t>;

// The elements of an array that a modem has counted, which may count more than there are.
template <typename Element, size_t N>
std::span<const Element> counted(const Element (&elements)[N], size_t count) {
  return std::span(elements).first(std::min(count, N));
}

// Pairs of hexadecimal digits; between the bytes may stand blanks, commas, colons or 0x: "0a1b", "0a 1b", "0x0A,0x1B".
// Throws a usage Failure that shows the place for anything else.
Bytes parse_hex(std::string_view text);

std::string to_hex(std::span<const uint8_t> bytes, std::string_view separator = "");

// Lines of 16 bytes: offset, hexadecimal, text with a dot for what cannot be printed. No bytes: no lines.
std::string hex_dump(std::span<const uint8_t> bytes, size_t indent = 0);

// "1 byte", "2 bytes".
std::string byte_count(size_t count);

// Adds "length", "data" (hexadecimal), and "text" where all bytes are printable ASCII, to an object.
void put_bytes(Json& object, std::span<const uint8_t> bytes);

}  // namespace pelmar::cli
