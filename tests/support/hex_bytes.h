// Bytes and structures that tests write in hexadecimal digits.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace pelmar::test {

// Bytes from hexadecimal digits; spaces are ignored.
inline std::vector<uint8_t> bytes(std::string hex) {
  std::vector<uint8_t> result;
  std::erase(hex, ' ');
  for (size_t at = 0; at < hex.size(); at += 2) {
    result.push_back(static_cast<uint8_t>(std::stoul(hex.substr(at, 2), nullptr, 16)));
  }
  return result;
}

// Writes fields, which are given as "offset:hexadecimal bytes" and separated by spaces.
inline void write_fields(std::vector<uint8_t>& structure, const std::string& content) {
  std::istringstream fields(content);
  for (std::string field; fields >> field;) {
    size_t offset = std::stoul(field);
    for (const uint8_t byte : bytes(field.substr(field.find(':') + 1))) structure.at(offset++) = byte;
  }
}

// A structure with these fields; the other bytes are zero.
inline std::vector<uint8_t> structure(size_t size, const std::string& content) {
  std::vector<uint8_t> result(size);
  write_fields(result, content);
  return result;
}

}  // namespace pelmar::test
