#include "text.h"

#include <charconv>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "failure.h"

namespace pelmar::cli {

namespace {

constexpr size_t kBytesPerLine = 16;
constexpr std::string_view kSeparators = " \t\r\n,:";
constexpr std::string_view kBlanks = " \t\r\n";
constexpr char kDigits[] = "0123456789abcdef";

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

// "2024-05-17T08:15:30.125", in the calendar of localtime_r() or gmtime_r().
std::string time_text(WallClock::time_point time, tm* (*calendar)(const time_t*, tm*)) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
  const auto seconds = static_cast<time_t>(ms / 1000);
  tm parts{};
  char text[128];
  const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", calendar(&seconds, &parts));
  snprintf(text + length, sizeof text - length, ".%03d", static_cast<int>(ms % 1000));
  return text;
}

}  // namespace

std::optional<int64_t> parse_number(const std::string& text, int64_t min, int64_t max) {
  const bool is_negative = text.starts_with('-');
  const char* begin = text.data() + (is_negative ? 1 : 0);
  const char* const end = text.data() + text.size();
  const bool is_hex = end - begin > 2 && begin[0] == '0' && (begin[1] == 'x' || begin[1] == 'X');
  if (is_hex) begin += 2;
  uint32_t value = 0;
  const auto [stop, error] = std::from_chars(begin, end, value, is_hex ? 16 : 10);
  if (error != std::errc() || stop != end) return std::nullopt;
  const int64_t number = is_negative ? -static_cast<int64_t>(value) : value;
  if (number < min || number > max) return std::nullopt;
  return number;
}

std::vector<std::string> split_words(std::string_view line) {
  if (line.find('\0') != line.npos) throw Failure::of_usage("a line holds a null character");
  std::vector<std::string> words;
  bool is_in_word = false;
  char quote = 0;  // of the quotation that is open
  for (size_t i = 0; i < line.size(); ++i) {
    const bool is_blank = quote == 0 && (kBlanks.find(line[i]) != kBlanks.npos);
    if (line[i] == '#' && !is_in_word) break;
    if (!is_blank && !is_in_word) words.emplace_back();
    is_in_word = !is_blank;
    if (is_blank) continue;
    if (quote == 0 ? line[i] == '\'' || line[i] == '"' : line[i] == quote) {
      quote = quote == 0 ? line[i] : '\0';
      continue;
    }
    const char next = i + 1 < line.size() ? line[i + 1] : '\0';
    const bool escapes = quote == 0 ? next != '\0' : quote == '"' && (next == '"' || next == '\\');
    if (line[i] == '\\' && escapes) ++i;
    words.back() += line[i];
  }
  if (quote != 0) throw Failure::of_usage(std::string("a quotation that begins with ") + quote + " has no end");
  return words;
}

Bytes parse_hex(std::string_view text) {
  Bytes bytes;
  bool may_prefix = true;  // "0x" is accepted before a byte, not within a sequence of digits
  for (size_t i = 0; i < text.size();) {
    if (kSeparators.find(text[i]) != kSeparators.npos) {
      may_prefix = true;
      ++i;
      continue;
    }
    if (may_prefix && text[i] == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) i += 2;
    may_prefix = false;
    const std::string_view pair = text.substr(i, 2);
    const char* const end = std::from_chars(pair.data(), pair.data() + pair.size(), bytes.emplace_back(), 16).ptr;
    if (end != pair.data() + 2) throw not_hex(text, static_cast<size_t>(end - text.data()));
    i += 2;
  }
  return bytes;
}

std::string to_hex(std::span<const uint8_t> bytes, std::string_view separator) {
  std::string text;
  text.reserve(bytes.size() * (2 + separator.size()));
  for (const uint8_t byte : bytes) {
    if (!text.empty()) text += separator;
    text.append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xF]);
  }
  return text;
}

std::string hex_dump(std::span<const uint8_t> bytes, size_t indent) {
  std::string text;
  for (size_t offset = 0; offset < bytes.size(); offset += kBytesPerLine) {
    const auto line = bytes.subspan(offset, std::min(kBytesPerLine, bytes.size() - offset));
    const uint8_t place[] = {static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset)};
    text.append(indent, ' ').append(to_hex(place)).append("  ");
    text.append(to_hex(line, " ")).append(3 * (kBytesPerLine - line.size()) + 2, ' ');
    for (const uint8_t byte : line) text += is_printable(byte) ? static_cast<char>(byte) : '.';
    text += '\n';
  }
  return text;
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string text;
  for (const std::string& part : parts) text.append(&part == parts.data() ? "" : separator).append(part);
  return text;
}

std::string count_of(size_t count, const std::string& noun) {
  return std::to_string(count) + ' ' + noun + (count == 1 ? "" : "s");
}

std::string text_of(std::span<const uint8_t> bytes) {
  const bool is_text = std::all_of(bytes.begin(), bytes.end(), is_printable);
  return is_text ? std::string(bytes.begin(), bytes.end()) : "";
}

void put_bytes(Json& object, std::span<const uint8_t> bytes) {
  object["length"] = bytes.size();
  object["data"] = to_hex(bytes);
  if (std::string text = text_of(bytes); !text.empty()) object["text"] = std::move(text);
}

std::string local_text(WallClock::time_point time) {
  return time_text(time, localtime_r).substr(std::string_view("2024-05-17T").size());
}

std::string utc_text(WallClock::time_point time) {
  return time_text(time, gmtime_r) + 'Z';
}

std::optional<Moment> parse_moment(const std::string& word) {
  if (word == "24:00") return Moment{true, 86'400'000'000'000};  // the end of the day
  tm time{};
  const bool is_of_day = word.find('T') == word.npos;
  const char* at = strptime(word.c_str(), is_of_day ? "%H:%M" : "%Y-%m-%dT%H:%M", &time);
  if (at != nullptr && *at == ':') at = strptime(at, ":%S", &time);
  if (at == nullptr) return std::nullopt;
  constexpr int kFirstYear = 1970 - 1900, kLastYear = 2261 - 1900;  // whose nanoseconds fit in 64 bits
  if (!is_of_day && (time.tm_year < kFirstYear || time.tm_year > kLastYear)) return std::nullopt;
  const int day = time.tm_mday;
  int64_t ns = (is_of_day ? (time.tm_hour * 60 + time.tm_min) * 60 + time.tm_sec : timegm(&time)) * 1'000'000'000;
  if (time.tm_mday != day) return std::nullopt;  // a day that the month does not have
  if (*at == '.') {
    for (int64_t digit = 100'000'000; *++at >= '0' && *at <= '9'; digit /= 10) ns += (*at - '0') * digit;
  }
  if (!is_of_day && *at++ != 'Z') return std::nullopt;
  return *at == '\0' ? std::optional(Moment{is_of_day, ns}) : std::nullopt;
}

std::optional<WallClock::time_point> parse_utc_text(const std::string& text) {
  const auto moment = parse_moment(text);
  if (!moment || moment->is_of_day) return std::nullopt;
  return WallClock::time_point(std::chrono::duration_cast<WallClock::duration>(std::chrono::nanoseconds(moment->ns)));
}

std::optional<Clock::time_point> deadline_after(uint32_t seconds) {
  if (seconds == 0) return std::nullopt;
  return Clock::now() + std::chrono::seconds(seconds);
}

std::string left_aligned(std::string text, size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

std::string right_aligned(const std::string& text, size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

}  // namespace pelmar::cli
