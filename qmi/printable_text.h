// Makes text of a peer or a file safe for a terminal, which acts on control characters: with them a name or a path
// could hide lines, forge them or change the terminal's settings.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pelmar {

// The length in bytes of the UTF-8 character at the beginning of the text; 0 if there is none.
inline size_t utf8_character_bytes(std::string_view text) {
  const auto byte = [&](size_t place) { return place < text.size() ? static_cast<uint8_t>(text[place]) : 0; };
  const int first = byte(0);
  if (first < 0x80) return 1;
  const size_t bytes = first < 0xC2 || first > 0xF4 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  for (size_t place = 1; place < bytes; ++place) {
    if ((byte(place) & 0xC0) != 0x80) return 0;
  }
  const int second = byte(1);
  const bool is_overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool is_no_character = (first == 0xED && second > 0x9F) || (first == 0xF4 && second > 0x8F);
  return is_overlong || is_no_character ? 0 : bytes;
}

// Returns the text with each byte of a control character (U+0000 to U+001F, U+007F to U+009F), and each byte that
// belongs to no UTF-8 character, replaced by "\xNN". The characters in `kept`, such as line ends, stay.
inline std::string printable_text(std::string_view text, std::string_view kept = "") {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string printable;
  while (!text.empty()) {
    const size_t bytes = utf8_character_bytes(text);
    const std::string_view character = text.substr(0, std::max<size_t>(bytes, 1));
    text.remove_prefix(character.size());
    const auto first = static_cast<uint8_t>(character[0]);
    const bool is_c0 = first < 0x20 || first == 0x7F;
    const bool is_c1 = first == 0xC2 && bytes == 2 && static_cast<uint8_t>(character[1]) < 0xA0;
    if ((bytes != 0 && !is_c0 && !is_c1) || kept.find(character) != kept.npos) {
      printable += character;
      continue;
    }
    for (const char unsafe : character) {
      const auto value = static_cast<uint8_t>(unsafe);
      printable.append("\\x").append(1, kDigits[value >> 4]).append(1, kDigits[value & 0x0F]);
    }
  }
  return printable;
}

}  // namespace pelmar
