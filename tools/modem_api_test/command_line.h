// The command line: global options, the commands that the sources in commands/ add, and the options that several of
// them have. Only command_line.cpp and help.cpp include CLI11, which parses it. Includes the headers that every command
// uses: texts, failures, the output, the session, the inbox, and signals.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "help.h"
#include "inbox.h"
#include "output.h"
#include "session.h"
#include "signals.h"
#include "text.h"

namespace pelmar::cli {

// The objects that a command uses.
struct Context {
  Output& output;
  Session& session;
  Inbox& inbox;
  Signals& signals;

  // Throws in a batch if both limits are 0, which is no limit: the command would not end.
  void require_end(uint32_t seconds, uint32_t count = 0) const;
};

// The values of a command without options.
struct NoValues {};

struct Settings {
  std::string modem;
  std::string trace;
  bool json = false;
  bool verbose = false;
  bool waits = false;
  bool phone_rules = false;
  uint32_t seconds = 0;  // 0: without limit
};

// Rarely used settings of an option or a positional argument.
struct Details {
  const char* type = nullptr;  // of its words, in the help text
  bool is_required = false;
  int most_words = 1;
  std::vector<std::string> words = {};     // the words that are accepted; empty: any
  std::vector<std::string> excludes = {};  // options that cannot be given together with it
  std::string needs = "";                  // an option that has to be given together with it
  const char* otherwise = nullptr;         // the default that the help prints; null: the target's value, if any
};

// Parses a word and stores it. Returns why the word is refused, or an empty text.
using Parse = std::function<std::string(const std::string& word)>;

// A command, to add options to: a name without dashes is that of a positional argument. The target keeps its value
// where the option is not given.
class Command {
 public:
  explicit Command(CLI::App& app) : app_(app) {}

  // Adds to the text below the options of the help: notes, and at least two examples of what follows the command's
  // name. A command without examples can be called without arguments.
  void add_notes(const std::string& text) const;
  void add_examples(std::initializer_list<std::string> arguments) const;

  void add_flag(const std::string& name, bool& target, const std::string& help, const Details& details = {}) const;
  void add_switch(const std::string& name, bool& target, const std::string& help) const;  // "on" or "off"; required
  // Text, or with std::vector one word or more. The help shows a text that the target has already.
  template <typename Target>
  void add_text(const std::string& name, Target& target, const std::string& help, const Details& details = {}) const;
  void add_parsed(const std::string& name, const std::string& help, const Parse& parse,
                  const Details& details = {}) const;

  // A number in its range.
  void add_number(const std::string& name, const std::string& help, int64_t min, int64_t max,
                  std::function<void(int64_t)> store, const Details& details) const;

  template <typename Number>
  void add_number(const std::string& name, Number& target, const std::string& help, const Details& details = {},
                  int64_t max = std::numeric_limits<Number>::max(),
                  int64_t min = std::is_signed_v<Number> ? -(int64_t{1} << (8 * sizeof(Number) - 1)) : 0) const {
    static_assert(std::is_integral_v<Number> && sizeof(Number) <= sizeof(uint32_t));
    const auto store = [&target](int64_t value) { target = static_cast<Number>(value); };
    const std::string value = std::to_string(target);
    Details shown = details;
    if (shown.otherwise == nullptr && !details.is_required) shown.otherwise = value.c_str();
    add_number(name, help, min, max, store, shown);
  }
  template <typename Number>
  void add_number(const std::string& name, std::optional<Number>& target, const std::string& help,
                  int64_t max = std::numeric_limits<Number>::max(), int64_t min = 0) const {
    add_number(name, help, min, max, [&target](int64_t value) { target = static_cast<Number>(value); }, {});
  }

  // --sub, 0 or 1. `otherwise`: what the help names as the default.
  void add_subscription(uint32_t& target) const;
  void add_subscription(std::optional<uint32_t>& target, const std::string& otherwise = "both") const;

  // --for SECONDS.
  void add_duration(uint32_t& target, const std::string& help = "end after that many seconds") const;

 private:
  CLI::App& app_;
};

class CommandLine {
 public:
  // `is_in_batch`: for a line of a batch. It has no options of the program, and not the commands that use standard
  // output for themselves or read captures.
  explicit CommandLine(bool is_in_batch = false);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Returns the exit status if there is nothing to run, as with --help. If the line is wrong, run() returns the
  // failure.
  std::optional<int> parse(int argc, char** argv);

  // The words of the command that parse() found, also of a wrong line, joined by "-"; empty for none.
  std::string command() const;

  const Settings& settings() const { return settings_; }
  // Returns what ended the command, where that is no success.
  std::optional<Failure> run(const Context& context) const;

  CLI::App& root() { return *app_; }

  // The words that a shell completes for options and arguments of the type.
  void set_completion(const std::string& type, std::vector<std::string> words) { words_[type] = std::move(words); }

  // A command that only holds others.
  CLI::App& add_group(const std::string& name, const std::string& summary);

  // Adds a command, and the values that its options fill, which live until it has run.
  template <typename Values>
  std::pair<Command, Values&> add(const std::string& name, const std::string& summary,
                                  void (*action)(const Context&, const Values&)) {
    return add<Values>(*app_, name, summary, action);
  }

  template <typename Values, typename Action>
  std::pair<Command, Values&> add(CLI::App& group, const std::string& name, const std::string& summary, Action action) {
    auto values = std::make_shared<Values>();
    CLI::App& app =
        add_app(group, name, summary, [action, values](const Context& context) { action(context, *values); });
    return {Command(app), *values};
  }

 private:
  using Run = std::function<void(const Context&)>;

  void add_program_options(const Command& global);
  CLI::App& add_app(CLI::App& group, const std::string& name, const std::string& summary, Run run);

  const std::unique_ptr<CLI::App> app_;
  Settings settings_;
  CompletionWords words_;
  Run action_;
};

// --- options of several commands ---

// Data to send: hexadecimal words, @FILE, or --text TEXT.
struct DataInput {
  std::vector<std::string> words;
  std::optional<std::string> text;

  void add_to(const Command& command);

  // Throws if no data, or invalid data, is given. The pointer is not null even for 0 bytes.
  Bytes read() const;
};

// Where data is written besides the report: nowhere, a file (@FILE, --output FILE), or - for standard output.
struct DataOutput {
  std::string file;

  void add_to(const Command& command);

  // Writes the bytes, then reports: to standard output alone where the bytes went elsewhere.
  void report(Output& output, const Bytes& bytes, Json document, const std::string& title) const;
};

// Throws if JSON documents go to standard output, because `option` writes to it, too.
void require_no_documents(const Output& output, const std::string& option);

// A command that can cost the phone its service or its settings is confirmed: with --yes, or at the terminal.
struct Confirmation {
  bool yes = false;

  void add_to(const Command& command);

  // `effect` as in "The modem restarts.". Throws where it is not confirmed.
  void require(const std::string& effect) const;
};

// --- the commands ---

// Each source in commands/ adds its own; command_line.cpp calls these in the order of the help text.
void add_info_command(CommandLine& line);
void add_item_commands(CommandLine& line);
void add_events_command(CommandLine& line);
void add_signal_command(CommandLine& line);
void add_statistics_commands(CommandLine& line);
void add_radio_commands(CommandLine& line);
void add_modem_commands(CommandLine& line);
void add_property_commands(CommandLine& line);
void add_trace_command(CommandLine& line);
void add_batch_command(CommandLine& line);

}  // namespace pelmar::cli
