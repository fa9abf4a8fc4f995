#include "io/numbers.h"

#include <charconv>

namespace pelmar::sim {

std::optional<uint64_t> parse_number(std::string_view text) {
  const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
  if (is_hex) text.remove_prefix(2);
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, is_hex ? 16 : 10);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace pelmar::sim
