// Options that several commands have: numbers, a subscription, data to send, a place for data, a confirmation.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "bytes.h"
#include "output.h"

namespace pelmar::cli {

// Decimal or 0x...; nothing for anything else, and for what is out of the range.
std::optional<int64_t> parse_number(const std::string& text, int64_t min, int64_t max);

// Adds an option or, for a name without dashes, a positional argument. The target keeps its value where it is not
// given.
CLI::Option* add_number(CLI::App& command, const std::string& name, const std::string& help, int64_t min, int64_t max,
                        std::function<void(int64_t)> store);

template <typename Number>
CLI::Option* add_number(CLI::App& command, const std::string& name, Number& target, const std::string& help,
                        int64_t max = std::numeric_limits<Number>::max()) {
  static_assert(std::is_integral_v<Number> && sizeof(Number) <= sizeof(uint32_t));
  return add_number(command, name, help, std::numeric_limits<Number>::min(), max,
                    [&target](int64_t value) { target = static_cast<Number>(value); });
}

// --sub, 0 or 1.
CLI::Option* add_subscription(CLI::App& command, uint32_t& target);

// The same for a command that may go without: `otherwise` says which subscriptions it means then.
CLI::Option* add_subscription(CLI::App& command, std::optional<uint32_t>& target,
                              const std::string& otherwise = "both");

// Data to send: hexadecimal words, @FILE, or --text TEXT.
struct DataInput {
  std::vector<std::string> words;
  std::optional<std::string> text;

  void add_to(CLI::App& command);

  // Throws where nothing is given, or what is given is no data. Also of no bytes the pointer is not null.
  Bytes read() const;

 private:
  Bytes parse() const;
};

// Where data that was read goes besides the report: nowhere, a file (@FILE, --output FILE), or - for standard output.
struct DataOutput {
  std::string file;

  void add_to(CLI::App& command);

  // Writes the bytes, then reports: to standard output alone where the bytes went elsewhere.
  void report(Output& output, const Bytes& bytes, Json document, const std::string& title) const;
};

// A command that can cost the phone its service or its settings is confirmed: --yes, or an answer at the terminal.
struct Confirmation {
  bool yes = false;

  void add_to(CLI::App& command);

  // `effect` as in "The modem restarts.". Throws where it is not confirmed.
  void require(const std::string& effect) const;
};

}  // namespace pelmar::cli
