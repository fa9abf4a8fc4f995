#include "console/commands.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>

#include "io/text.h"
#include "simulation.h"

namespace pelmar::sim {

// --- words ---

Arguments::Arguments(std::string_view line, bool is_only_check) : is_only_check_(is_only_check) {
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

// --- commands ---

std::span<const CommandGroup> command_groups() {
  static const CommandGroup groups[] = {kServiceCommands,    kPowerCommands,     kFaultCommands,
                                        kIndicationCommands, kStatisticCommands, kGeneralCommands};
  return groups;
}

std::string usage_of(const Command& command) {
  return std::string(command.name) + (command.arguments.empty() ? "" : " ") + std::string(command.arguments);
}

std::string describe_commands() {
  constexpr size_t kUsageColumn = 44;  // where the summaries begin
  std::string text = "Commands:\n";
  for (const CommandGroup& group : command_groups()) {
    text.append("\n").append(group.title).append(":\n");
    for (const Command& command : group.commands) {
      std::string usage = "  " + usage_of(command) + ' ';
      if (usage.size() < kUsageColumn) {
        usage.resize(kUsageColumn, ' ');
      } else {
        usage.append("\n").append(kUsageColumn, ' ');
      }
      text.append(usage).append(command.summary).append("\n");
    }
  }
  return text;
}

namespace {

// The command whose name the line begins with; its words are taken.
const Command& take_command(Arguments& arguments, std::string_view line) {
  if (arguments.is_empty()) throw CommandError("empty command: 'help' lists the commands");
  for (const CommandGroup& group : command_groups()) {
    for (const Command& command : group.commands) {
      if (arguments.accept_words(command.name)) return command;
    }
  }
  throw CommandError("unknown command '" + std::string(line) + "': 'help' lists the commands");
}

Json take_and_run(Simulation& simulation, std::string_view line, bool is_only_check) {
  Arguments arguments(line, is_only_check);
  const Command& command = take_command(arguments, line);
  try {
    return command.run(simulation, arguments);
  } catch (const CommandError& error) {
    throw CommandError(std::string(error.what()) + " (usage: " + usage_of(command) + ")");
  }
}

}  // namespace

Json run_command(Simulation& simulation, std::string_view line) {
  try {
    Json response = {{"ok", true}};
    response.update(take_and_run(simulation, line, false));
    return response;
  } catch (const CommandError& error) {
    return {{"ok", false}, {"error", error.what()}, {"usage", true}};
  } catch (const std::exception& error) {
    return {{"ok", false}, {"error", error.what()}};
  }
}

void check_command(Simulation& simulation, std::string_view line) {
  try {
    take_and_run(simulation, line, true);
  } catch (const CommandIsRight&) {
  }
}

// --- services and messages ---

Modem::Slot& take_service(Simulation& simulation, Arguments& arguments) {
  const std::string text = arguments.word("SERVICE");
  const auto number = parse_number(text);
  Modem::Slot* slot = nullptr;
  if (!number) slot = simulation.modem.find(text);
  if (number && *number <= 0xFF) slot = simulation.modem.find(static_cast<uint8_t>(*number));
  if (slot != nullptr) return *slot;
  throw CommandError("no service '" + text + "': there are " +
                     list_names(simulation.modem.slots(), [](const auto& each) { return each.service->name(); }));
}

uint16_t take_message(const Service* service, Arguments& arguments) {
  const std::string text = arguments.word("MESSAGE");
  const auto number = parse_number(text);
  if (number && *number <= 0xFFFF) return static_cast<uint16_t>(*number);
  const std::span<const MessageRow> rows = service != nullptr ? service->messages() : std::span<const MessageRow>();
  const auto row = std::find_if(rows.begin(), rows.end(), [&](const MessageRow& each) { return each.name == text; });
  if (row != rows.end()) return row->id;
  const std::string names = list_names(rows, [](const MessageRow& each) { return each.name; });
  throw CommandError("no message '" + text + "': a number such as 0x0100" + (names.empty() ? "" : " or one of ") +
                     names + " is expected");
}

std::string message_text(const Service* service, uint16_t message) {
  char number[16];
  snprintf(number, sizeof number, "0x%04x", message);
  const MessageRow* const row = service != nullptr ? service->find(message) : nullptr;
  return row != nullptr ? std::string(row->name) + " (" + number + ")" : number;
}

}  // namespace pelmar::sim
