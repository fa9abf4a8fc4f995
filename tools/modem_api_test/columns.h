// Text in columns: filled up with spaces to a width, and left as it is where it is wider.
#pragma once

#include <algorithm>
#include <string>

namespace pelmar::cli {

inline std::string left_aligned(std::string text, size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

inline std::string right_aligned(const std::string& text, size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

}  // namespace pelmar::cli
