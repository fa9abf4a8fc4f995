#include "bytes.h"

#include <algorithm>

#include "failure.h"
#include "json.h"

namespace pelmar::cli {

namespace {

constexpr size_t kBytesPerLine = 16;
constexpr size_t kOffsetDigits = 4;
constexpr std::string_view kSeparators = " \t\r\n,:";
constexpr char kDigits[] = "0123456789abcdef";

int digit_value(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  if (character >= 'a' && character <= 'f') return character - 'a' + 10;
  if (character >= 'A' && character <= 'F') return character - 'A' + 10;
  return -1;
}

Failure not_hex(std::string_view text, size_t place) {
  const std::string reason = place < text.size()
                                 ? "'" + std::string(1, text[place]) + "' at position " + std::to_string(place + 1)
                                 : "the end after " + std::to_string(text.size()) + " characters";
  return Failure::of_usage("the data is not hexadecimal: a pair of digits is expected, not " + reason,
                           "Give pairs of digits (\"0a 1b\"), --text TEXT or @FILE.");
}

bool is_printable(uint8_t byte) {
  return byte >= 0x20 && byte < 0x7F;
}

void append_hex(std::string& text, uint64_t value, size_t digits) {
  for (size_t i = digits; i-- > 0;) text += kDigits[(value >> (4 * i)) & 0xF];
}

}  // namespace

Bytes parse_hex(std::string_view text) {
  Bytes bytes;
  bool may_prefix = true;  // 0x stands in front of a byte, not within a run of digits
  for (size_t i = 0; i < text.size();) {
    if (kSeparators.find(text[i]) != kSeparators.npos) {
      may_prefix = true;
      ++i;
      continue;
    }
    if (may_prefix && text[i] == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) i += 2;
    may_prefix = false;
    if (i >= text.size() || digit_value(text[i]) < 0) throw not_hex(text, i);
    if (i + 1 >= text.size() || digit_value(text[i + 1]) < 0) throw not_hex(text, i + 1);
    bytes.push_back(static_cast<uint8_t>(digit_value(text[i]) << 4 | digit_value(text[i + 1])));
    i += 2;
  }
  return bytes;
}

std::string to_hex(std::span<const uint8_t> bytes, std::string_view separator) {
  std::string text;
  text.reserve(bytes.size() * (2 + separator.size()));
  for (const uint8_t byte : bytes) {
    if (!text.empty()) text += separator;
    append_hex(text, byte, 2);
  }
  return text;
}

std::string hex_dump(std::span<const uint8_t> bytes, size_t indent) {
  std::string text;
  for (size_t offset = 0; offset < bytes.size(); offset += kBytesPerLine) {
    const auto line = bytes.subspan(offset, std::min(kBytesPerLine, bytes.size() - offset));
    text.append(indent, ' ');
    append_hex(text, offset, kOffsetDigits);
    text.append("  ").append(to_hex(line, " ")).append(3 * (kBytesPerLine - line.size()) + 2, ' ');
    for (const uint8_t byte : line) text += is_printable(byte) ? static_cast<char>(byte) : '.';
    text += '\n';
  }
  return text;
}

std::string byte_count(size_t count) {
  return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

void put_bytes(Json& object, std::span<const uint8_t> bytes) {
  object["length"] = bytes.size();
  object["data"] = to_hex(bytes);
  if (!bytes.empty() && std::all_of(bytes.begin(), bytes.end(), is_printable)) {
    object["text"] = std::string(bytes.begin(), bytes.end());
  }
}

}  // namespace pelmar::cli
