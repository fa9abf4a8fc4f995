#include "console/arguments.h"

#include <algorithm>

#include "io/hex.h"
#include "io/numbers.h"

namespace pelmar::sim {

Arguments::Arguments(std::string_view line) {
  constexpr std::string_view kSpace = " \t\r\n";
  for (size_t start = line.find_first_not_of(kSpace); start != line.npos;
       start = line.find_first_not_of(kSpace, start)) {
    const size_t end = std::min(line.find_first_of(kSpace, start), line.size());
    words_.emplace_back(line.substr(start, end - start));
    start = end;
  }
}

std::string Arguments::word(std::string_view what) {
  if (is_empty()) throw CommandError("missing " + std::string(what));
  return words_[next_++];
}

uint64_t Arguments::number(std::string_view what, uint64_t max) {
  const std::string text = word(what);
  const auto value = parse_number(text);
  if (!value || *value > max) {
    throw CommandError("'" + text + "' is no " + std::string(what) + ": a number from 0 to " + std::to_string(max) +
                       " is expected");
  }
  return *value;
}

bool Arguments::flag(std::string_view what) {
  return number(what, 1) == 1;
}

std::vector<uint8_t> Arguments::hex(std::string_view what, size_t max_bytes) {
  const std::string text = word(what);
  auto bytes = parse_hex(text);
  if (!bytes || bytes->size() > max_bytes) {
    throw CommandError("'" + text + "' is no " + std::string(what) + ": at most " + std::to_string(max_bytes) +
                       " bytes as pairs of hexadecimal digits are expected");
  }
  return *bytes;
}

std::string Arguments::rest(std::string_view what) {
  std::string text = word(what);
  while (!is_empty()) text.append(" ").append(words_[next_++]);
  return text;
}

bool Arguments::accept(std::string_view keyword) {
  if (is_empty() || words_[next_] != keyword) return false;
  ++next_;
  return true;
}

bool Arguments::accept_words(std::string_view words) {
  const Arguments wanted(words);
  if (words_.size() - next_ < wanted.words_.size()) return false;
  if (!std::equal(wanted.words_.begin(), wanted.words_.end(), words_.begin() + static_cast<ptrdiff_t>(next_))) {
    return false;
  }
  next_ += wanted.words_.size();
  return true;
}

void Arguments::end() const {
  if (!is_empty()) throw CommandError("'" + words_[next_] + "' is one word too many");
}

}  // namespace pelmar::sim
