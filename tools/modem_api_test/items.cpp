#include "items.h"

#include <cctype>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "failure.h"
#include "output.h"

namespace pelmar::cli {

namespace {

// Calls of the library with the parts of an address that each kind has.
template <auto kCall, typename... Data>
modem_api_result nv(int32_t client, const Address& a, Data... data) {
  return kCall(client, a.item, static_cast<uint8_t>(a.qualifier), a.index, data...);
}

template <auto kCall, typename... Data>
modem_api_result efs(int32_t client, const Address& a, Data... data) {
  return kCall(client, a.item, a.qualifier, data...);
}

template <auto kCall, typename... Data>
modem_api_result efs_path(int32_t client, const Address& a, Data... data) {
  return kCall(client, a.path.c_str(), a.qualifier, static_cast<uint8_t>(a.index), data...);
}

template <auto kCall, typename... Data>
modem_api_result rfnv(int32_t client, const Address& a, Data... data) {
  return kCall(client, a.item, data...);
}

constexpr Kind kKinds[] = {
    {"nv", "NV item", "NV items, by number", false, "10", UINT8_MAX, UINT16_MAX,  //
     nv<modem_api_read_nv>, nv<modem_api_write_nv>, nv<modem_api_delete_nv>},
    {"efs", "EFS item", "EFS items, by number", false, "77", UINT16_MAX, 0,  //
     efs<modem_api_read_efs>, efs<modem_api_write_efs>, efs<modem_api_delete_efs>},
    {"efs-path", "EFS file", "EFS files, by path", true, "/nv/item_files/a", UINT16_MAX, UINT8_MAX,  //
     efs_path<modem_api_read_efs_path>, efs_path<modem_api_write_efs_path>, efs_path<modem_api_delete_efs_path>},
    {"rfnv", "RF NV item", "RF NV items, by number", false, "20", 0, 0,  //
     rfnv<modem_api_read_rfnv>, rfnv<modem_api_write_rfnv>, rfnv<modem_api_delete_rfnv>},
};

constexpr size_t kMostFileBytes = 64 << 20;
constexpr size_t kMostWrongLines = 20;
constexpr size_t kMostAddresses = 1 << 20;

std::string quoted(const std::string& word) {
  const auto is_plain = [](char c) { return isalnum(static_cast<uint8_t>(c)) != 0 || strchr("/_.-+,:", c) != nullptr; };
  if (std::all_of(word.begin(), word.end(), is_plain)) return word;
  std::string text = "'";
  for (const char character : word) text += character == '\'' ? "'\\''" : std::string(1, character);
  return text + "'";
}

int64_t number_of(const std::string& word, const std::string& what, int64_t max) {
  if (const auto number = parse_number(word, 0, max)) return *number;
  throw Failure::of_usage("'" + word + "' is no " + what + " from 0 to " + std::to_string(max));
}

std::string path_of(const std::string& word) {
  if (const std::string problem = path_problem(word); !problem.empty()) throw Failure::of_usage(problem);
  return word;
}

// The words, and for "@FILE" the lines of that file.
std::vector<std::string> read_paths(const std::vector<std::string>& words) {
  std::vector<std::string> paths;
  for (const std::string& word : words) {
    if (!word.starts_with('@')) {
      paths.push_back(word);
      continue;
    }
    const std::string file = word.substr(1);
    const std::string step = "reading the paths from '" + file + "'";
    std::istringstream lines(read_file(file == "-" ? nullptr : file.c_str(), step, kMostFileBytes));
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line[0] != '#') paths.push_back(line);
    }
  }
  return paths;
}

FileItem parse_item(const Kind& kind, const std::vector<std::string>& words) {
  const auto equals = std::find(words.begin(), words.end(), "=");
  if (words[0] != kind.command || equals == words.end() || equals - words.begin() < 2) {
    throw Failure::of_usage(std::string("it is not of the form '") + kind.command + " ITEM = BYTES'");
  }
  FileItem item;
  if (kind.by_path) item.address.path = path_of(words[1]);
  if (!kind.by_path) item.address.item = static_cast<uint32_t>(number_of(words[1], "item", UINT32_MAX));
  for (auto word = words.begin() + 2; word != equals; word += 2) {
    const bool is_qualifier = *word == "qualifier";
    const int64_t max = is_qualifier ? kind.max_qualifier : *word == "index" ? kind.max_index : 0;
    if (max == 0 || word + 1 == equals) throw Failure::of_usage("'" + *word + "' is not understood");
    (is_qualifier ? item.address.qualifier : item.address.index) =
        static_cast<uint16_t>(number_of(word[1], *word, max));
  }
  std::string digits;
  for (auto word = equals + 1; word != words.end(); ++word) digits.append(digits.empty() ? "" : " ").append(*word);
  item.data = parse_hex(digits);
  if (item.data.size() > MODEM_API_MAX_ITEM_BYTES) throw Failure::of_usage("an item has at most 256 bytes");
  item.data.reserve(1);  // the library takes no null pointer, also for no bytes
  return item;
}

}  // namespace

std::span<const Kind> kinds() {
  return kKinds;
}

std::string path_problem(const std::string& path) {
  if (!path.empty() && path.size() <= MODEM_API_MAX_PATH_CHARACTERS) return "";
  return "a path has 1 to " + std::to_string(MODEM_API_MAX_PATH_CHARACTERS) + " characters";
}

std::string title_of(const Kind& kind, const Address& address) {
  std::string title = std::string(kind.title) + " " + (kind.by_path ? address.path : std::to_string(address.item));
  if (address.qualifier != 0) title += ", qualifier " + std::to_string(address.qualifier);
  if (address.index != 0) title += ", index " + std::to_string(address.index);
  return title;
}

Json json_of(const Kind& kind, const Address& address) {
  Json object;
  if (kind.by_path) object["path"] = address.path;
  if (!kind.by_path) object["item"] = address.item;
  if (kind.max_qualifier > 0) object["qualifier"] = address.qualifier;
  if (kind.max_index > 0) object["index"] = address.index;
  return object;
}

// --- many ---

std::string line_of(const Kind& kind, const Address& address, std::span<const uint8_t> data) {
  std::string line = kind.command + (" " + (kind.by_path ? quoted(address.path) : std::to_string(address.item)));
  if (address.qualifier != 0) line += " qualifier " + std::to_string(address.qualifier);
  if (address.index != 0) line += " index " + std::to_string(address.index);
  const std::string text = text_of(data);
  return line + " = " + to_hex(data, " ") + (text.empty() ? "\n" : "  # " + text + "\n");
}

std::vector<FileItem> read_items(const Kind& kind, const std::string& path) {
  const std::string step = "checking '" + path + "'";
  std::istringstream lines(read_file(path == "-" ? nullptr : path.c_str(), step, kMostFileBytes));
  std::vector<FileItem> items;
  std::map<Address, size_t> seen;
  std::string wrong;
  size_t wrong_lines = 0;
  size_t number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    try {
      const std::vector<std::string> words = split_words(line);
      if (words.empty()) continue;
      items.push_back(parse_item(kind, words));
      items.back().line = number;
      const auto [first, is_new] = seen.try_emplace(items.back().address, number);
      if (!is_new) throw Failure::of_usage("the item stands in line " + std::to_string(first->second) + " already");
    } catch (const Failure& failure) {
      if (++wrong_lines <= kMostWrongLines) wrong += "\n  line " + std::to_string(number) + ": " + failure.reason();
    }
  }
  if (wrong_lines == 0 && items.empty()) throw Failure(step, "it has no item");
  if (wrong_lines == 0) return items;
  if (wrong_lines > kMostWrongLines) wrong += "\n  and " + std::to_string(wrong_lines - kMostWrongLines) + " more";
  throw Failure(step, "it has " + count_of(wrong_lines, "wrong line") + wrong, "Nothing was sent to the modem.");
}

std::vector<Address> parse_addresses(const Kind& kind, const std::vector<std::string>& words, Address base) {
  std::set<Address> addresses;
  for (const std::string& word : kind.by_path ? read_paths(words) : words) {
    if (kind.by_path) {
      base.path = path_of(word);
      addresses.insert(base);
      continue;
    }
    const size_t dash = std::min(word.find('-'), word.size());
    const auto first = parse_number(word.substr(0, dash), 0, UINT32_MAX);
    const auto last = dash == word.size() ? first : parse_number(word.substr(dash + 1), 0, UINT32_MAX);
    if (!first || !last || *last < *first) {
      throw Failure::of_usage("'" + word + "' is no item or range", "Give numbers from 0 to 4294967295, as in 10-20.");
    }
    for (int64_t item = *first; item <= *last && addresses.size() <= kMostAddresses; ++item) {
      base.item = static_cast<uint32_t>(item);
      addresses.insert(base);
    }
  }
  if (addresses.size() <= kMostAddresses) return {addresses.begin(), addresses.end()};
  throw Failure::of_usage("more than " + count_of(kMostAddresses, kind.title) + " are named");
}

}  // namespace pelmar::cli
