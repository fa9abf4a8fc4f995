// Numbers, bytes, times and columns as text, for people and for scripts; and the types that all sources share.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pelmar::cli {

using Json = nlohmann::ordered_json;  // fields keep the order in which they are written

// For times that are printed or stored; and a steady one, for waiting.
using WallClock = std::chrono::system_clock;
using Clock = std::chrono::steady_clock;

using Bytes = std::vector<uint8_t>;

// Decimal or 0x...; nothing for anything else, and for what is out of the range.
std::optional<int64_t> parse_number(const std::string& text, int64_t min, int64_t max);

std::string join(const std::vector<std::string>& parts, std::string_view separator);

// "1 byte", "2 bytes".
std::string count_of(size_t count, const std::string& noun);

// The words of a line, split and quoted as in a shell: '...', "..." with \" and \\ in it, \ before any character; #
// begins a comment where a word would begin. Throws a usage Failure where a quotation has no end.
std::vector<std::string> split_words(std::string_view line);

// --- bytes ---

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

// The bytes as text where all are printable ASCII; empty otherwise.
std::string text_of(std::span<const uint8_t> bytes);

// Adds "length", "data" (hexadecimal), and "text" where all bytes are printable ASCII, to an object.
void put_bytes(Json& object, std::span<const uint8_t> bytes);

// --- times ---

std::string local_text(WallClock::time_point time);  // "08:15:30.125", for people
std::string utc_text(WallClock::time_point time);    // "2024-05-17T06:15:30.125Z", for scripts

// A time of any day, or a moment.
struct Moment {
  bool is_of_day;
  int64_t ns;  // of the day, or since the epoch
};

// "08:15", "08:15:30.5", "24:00", "2024-05-17T06:15:30.125Z"; nothing for anything else.
std::optional<Moment> parse_moment(const std::string& word);

// The reverse of utc_text(); nothing for a text that is no moment.
std::optional<WallClock::time_point> parse_utc_text(const std::string& text);

// So many seconds from now; nothing for 0, which is without limit.
std::optional<Clock::time_point> deadline_after(uint32_t seconds);

// --- columns ---

// Filled up with spaces to a width, and left as it is where it is wider.
std::string left_aligned(std::string text, size_t width);
std::string right_aligned(const std::string& text, size_t width);

}  // namespace pelmar::cli
