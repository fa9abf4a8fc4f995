#include "io/text.h"

#include <cctype>
#include <charconv>

namespace pelmar::sim {

namespace {

constexpr size_t kBytesALine = 16;
constexpr std::string_view kDigits = "0123456789abcdef";

// The whole text as one number of that base.
template <typename Number>
std::optional<Number> parse_whole(std::string_view text, int base) {
  Number value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<uint64_t> parse_number(std::string_view text) {
  const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
  return is_hex ? parse_whole<uint64_t>(text.substr(2), 16) : parse_whole<uint64_t>(text, 10);
}

std::optional<std::vector<uint8_t>> parse_hex(std::string_view text) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < text.size();) {
    if (isspace(static_cast<unsigned char>(text[i]))) {
      ++i;
      continue;
    }
    const auto byte = parse_whole<uint8_t>(text.substr(i, 2), 16);
    if (!byte || i + 1 == text.size()) return std::nullopt;
    bytes.push_back(*byte);
    i += 2;
  }
  return bytes;
}

std::string to_hex_lines(std::span<const uint8_t> bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0F];
    text += (i + 1) % kBytesALine == 0 || i + 1 == bytes.size() ? '\n' : ' ';
  }
  return text;
}

}  // namespace pelmar::sim
