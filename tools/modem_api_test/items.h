// The four kinds of items, and the file format of dump and restore. What differs between the kinds is a row.
//
// A file has an item a line, for people to read and edit: its kind, its number or path, qualifier and index where they
// are not 0, and its bytes. Words are split and quoted as in a shell, and # begins a comment:
//
//   nv 10 index 1 = 68 65 6c 6c 6f  # hello
//   efs-path '/nv/a file' = 01
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "modem_api.h"
#include "text.h"

namespace pelmar::cli {

struct Address {
  uint32_t item = 0;
  std::string path = "";
  uint16_t qualifier = 0;
  uint16_t index = 0;

  bool operator<(const Address& other) const {
    return std::tie(item, path, qualifier, index) < std::tie(other.item, other.path, other.qualifier, other.index);
  }
};

// Limits are 0 where a kind has no such part.
struct Kind {
  const char* command;
  const char* title;
  const char* summary;
  bool by_path;
  const char* example;  // an address
  int64_t max_qualifier;
  int64_t max_index;
  modem_api_result (*read)(int32_t client, const Address& address, uint8_t* data, uint32_t* length);
  modem_api_result (*write)(int32_t client, const Address& address, const uint8_t* data, uint32_t length);
  modem_api_result (*remove)(int32_t client, const Address& address);
};

std::span<const Kind> kinds();

// Why it is no path of an EFS file; empty where it is one. The library cuts a longer path, and would address another
// file.
std::string path_problem(const std::string& path);

// "NV item 10, index 1".
std::string title_of(const Kind& kind, const Address& address);

Json json_of(const Kind& kind, const Address& address);

// --- many ---

// An item that a line of a file has.
struct FileItem {
  Address address = {};
  Bytes data = {};
  size_t line = 0;
};

std::string line_of(const Kind& kind, const Address& address, std::span<const uint8_t> data);

// The items of a file, or of standard input for "-", one at least. Throws where lines are wrong, with all of them up to
// a bound.
std::vector<FileItem> read_items(const Kind& kind, const std::string& path);

// Numbers and ranges ("10-20"), or paths and files of them ("@FILE"), with the qualifier and index of `base`. In order,
// each once. Throws a usage Failure for anything else.
std::vector<Address> parse_addresses(const Kind& kind, const std::vector<std::string>& words, Address base);

}  // namespace pelmar::cli
