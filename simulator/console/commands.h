// The user's commands as rows: a name, its arguments, its effect.
#pragma once

#include <cstdint>
#include <limits>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "qmi/modem.h"

namespace pelmar::sim {

struct Simulation;

using Json = nlohmann::ordered_json;

// A command or a command line that is wrong. The text has the mistake and what is expected.
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Thrown by Arguments::end() for a command that is only checked.
class CommandIsRight {};

// The words of a command, taken one after the other. A command has no effect before its call of end().
class Arguments {
 public:
  explicit Arguments(std::string_view line, bool is_only_check = false);

  bool is_only_check() const { return is_only_check_; }

  bool is_empty() const { return next_ == words_.size(); }

  // REQUIRES: !is_empty().
  std::string_view peek() const { return words_[next_]; }

  // Each takes the next word; `what` names it in the error. Numbers are decimal or 0x....
  std::string word(std::string_view what);
  uint64_t number(std::string_view what, uint64_t max);
  std::vector<uint8_t> hex(std::string_view what, size_t max_bytes);

  // Any number that the type can hold.
  template <typename Number>
  Number number(std::string_view what) {
    return static_cast<Number>(number(what, std::numeric_limits<Number>::max()));
  }

  // Takes all words that are left, with single spaces between them.
  std::string rest(std::string_view what);

  // Takes the next word if it is that one.
  bool accept(std::string_view keyword);

  // Takes the next words if they are these, which are separated by single spaces.
  bool accept_words(std::string_view words);

  // Throws CommandError where a word is left, and CommandIsRight where the command is only checked.
  void end() const {
    if (!is_empty()) throw CommandError("'" + words_[next_] + "' is one word too many");
    if (is_only_check_) throw CommandIsRight();
  }

 private:
  const bool is_only_check_;
  std::vector<std::string> words_;
  size_t next_ = 0;
};

struct Command {
  std::string_view name;  // one word or several
  std::string_view arguments;
  std::string_view summary;
  // Throws CommandError for a wrong command, and another std::exception where the modem cannot carry it out now.
  // Returns the response's fields; "ok" is added.
  Json (*run)(Simulation& simulation, Arguments& arguments);
};

struct CommandGroup {
  std::string_view title;
  std::span<const Command> commands;
};

// In modem_commands.cpp.
extern const CommandGroup kServiceCommands;
extern const CommandGroup kPowerCommands;
extern const CommandGroup kFaultCommands;
extern const CommandGroup kGeneralCommands;
// In value_commands.cpp.
extern const CommandGroup kIndicationCommands;
extern const CommandGroup kStatisticCommands;

// All groups, in the order in which help shows them.
std::span<const CommandGroup> command_groups();

// The command's name and arguments.
std::string usage_of(const Command& command);

// All commands with their arguments, as text for --help.
std::string describe_commands();

// The response to an unknown or wrong command has "usage" true.
Json run_command(Simulation& simulation, std::string_view line);

// Throws CommandError for a command that is unknown or wrong.
void check_command(Simulation& simulation, std::string_view line);

// The response to "status" as text of several lines.
std::string status_text(Simulation& simulation);

// --- for the groups ---

// Takes a service by its name or number.
Modem::Slot& take_service(Simulation& simulation, Arguments& arguments);

// Takes a message of the service by its name or number. A number need not be one that the service has.
uint16_t take_message(const Service* service, Arguments& arguments);

// "read-nv (0x0100)", or the number alone.
std::string message_text(const Service* service, uint16_t message);

// "a, b, c"
template <typename Rows, typename NameOf>
std::string list_names(const Rows& rows, NameOf name_of) {
  std::string names;
  for (const auto& row : rows) names.append(names.empty() ? "" : ", ").append(name_of(row));
  return names;
}

}  // namespace pelmar::sim
