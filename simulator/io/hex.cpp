#include "io/hex.h"

#include <cctype>

namespace pelmar::sim {

namespace {

constexpr size_t kBytesALine = 16;
constexpr std::string_view kDigits = "0123456789abcdef";

int digit(char character) {
  const auto place = kDigits.find(static_cast<char>(tolower(static_cast<unsigned char>(character))));
  return place == std::string_view::npos ? -1 : static_cast<int>(place);
}

}  // namespace

std::string to_hex_lines(std::span<const uint8_t> bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0F];
    text += (i + 1) % kBytesALine == 0 || i + 1 == bytes.size() ? '\n' : ' ';
  }
  return text;
}

std::optional<std::vector<uint8_t>> parse_hex(std::string_view text) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < text.size();) {
    if (isspace(static_cast<unsigned char>(text[i]))) {
      ++i;
      continue;
    }
    if (i + 1 == text.size() || digit(text[i]) < 0 || digit(text[i + 1]) < 0) return std::nullopt;
    bytes.push_back(static_cast<uint8_t>(digit(text[i]) << 4 | digit(text[i + 1])));
    i += 2;
  }
  return bytes;
}

}  // namespace pelmar::sim
