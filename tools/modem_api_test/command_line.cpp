#include "command_line.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>
#include <regex>

namespace pelmar::cli {

namespace {

// In the lines of help.h.
constexpr const char* kNotes = R"(Environment:
  PELMAR_MODEM  the modem, in a form of --modem
  PELMAR_TRACE  the capture that every message is written to, for any program on the Linux platform (see --trace)
  PELMAR_PLATFORM_RULES  phone: the same as --phone-rules
  PELMAR_ANY_USER  1: every user may serve sockets on abstract names (default: this user and root)
  PELMAR_PROPERTY_DIR  directory of the system properties (default: pelmar/properties in XDG_STATE_HOME)
  PELMAR_PM_SOCKET  socket of the peripheral manager (default: the modem's with .pm added)
  PELMAR_MODEM_SIM  program of the simulated modem (default: modem_sim beside this program)
  XDG_STATE_HOME  where the properties, the record of client ids (pelmar/client-ids) and the storage of the own modem (pelmar/modem) are (default: ~/.local/state; without a home, the first two are in a private directory in TMPDIR)
  XDG_RUNTIME_DIR  where the socket of the own modem is (default: its storage)
  NO_COLOR  if not empty, the live view has no colours
Exit status:
  0  success
  1  failure, also of a modem that does not respond, or that is away when a recording ends
  2  wrong usage
  128 + N  ended by signal N
Examples:
  modem_api_test nv write 10 --text hello
  modem_api_test signal --watch
  modem_api_test --modem proxy:/dev/cdc-wdm0 info
Without a modem named, a simulated one is started. It keeps its storage between runs, and ends when it was not used for a minute.
)";

constexpr const char* kProgram = "modem_api_test";

constexpr size_t kMostInputBytes = 65536;  // more than any message has, so the library refuses what is too long

void set_details(CLI::Option& option, const Details& details) {
  if (details.type != nullptr) option.type_name(details.type);
  if (details.is_required) option.required();
  if (details.most_words > 1) option.expected(1, details.most_words);
  for (const std::string& other : details.excludes) option.excludes(other);
  if (!details.needs.empty()) option.needs(details.needs);
  if (details.otherwise != nullptr) option.default_str(details.otherwise);
  if (!details.words.empty()) option.check(CLI::IsMember(details.words));
}

// The commands and groups of the line, up to where it is wrong.
const CLI::App& last_command(const CLI::App& app) {
  const auto parsed = app.get_subcommands();
  return parsed.empty() ? app : last_command(*parsed.back());
}

// CLI11's words for what is wrong with the arguments, which differ from case to case, and this program's.
constexpr struct {
  CLI::ExitCodes kind;
  const char* pattern;
  const char* text;
} kProblems[] = {
    {CLI::ExitCodes::ArgumentMismatch, "(.*?): .*", "$1: a value is missing"},
    {CLI::ExitCodes::ConversionError, "Could not convert", "not understood"},
    {CLI::ExitCodes::ExcludesError, " excludes ", " cannot be given with "},
    {CLI::ExitCodes::RequiredError, " is required", " is missing"},
    {CLI::ExitCodes::RequiresError, " requires ", " needs "},
    {CLI::ExitCodes::ValidationError, ": (.*) not in \\{(.*)\\}", ": '$1' is none of $2"},
};

Failure wrong_usage(const CLI::App& root, const CLI::ParseError& error) {
  const CLI::App& app = last_command(root);
  const std::vector<std::string> words = root.remaining(true);
  std::string reason = error.what();
  for (const auto& row : kProblems) {
    if (error.get_exit_code() == static_cast<int>(row.kind)) {
      reason = std::regex_replace(reason, std::regex(row.pattern), row.text);
    }
  }
  // CLI11 reports a missing command before it reports an unknown word.
  if (!app.get_subcommands({}).empty()) {
    reason = words.empty() ? "a command is missing" : "there is no command '" + words.front() + "'";
    if (root.get_help_ptr() == nullptr) reason += " in a batch";
  } else if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError)) {
    reason = "'" + words.front() + "' is not expected";
  }
  return Failure::of_usage(reason, "'" + path_of(app) + " --help' lists the commands and options.");
}

void print_completion(const Context& context, const std::string& shell) {
  context.output.write(completion_script(shell));
}

}  // namespace

// --- options ---

void Command::add_notes(const std::string& text) const {
  app_.footer(app_.get_footer() + text + "\n");
}

void Command::add_examples(std::initializer_list<std::string> arguments) const {
  add_notes("Examples:");
  for (const std::string& each : arguments) add_notes("  " + path_of(app_) + (each.empty() ? "" : " ") + each);
}

void Command::add_flag(const std::string& name, bool& target, const std::string& help, const Details& details) const {
  set_details(*app_.add_flag(name, target, help), details);
}

void Command::add_switch(const std::string& name, bool& target, const std::string& help) const {
  set_details(*app_.add_option(name, target, help), {.is_required = true, .words = {"on", "off"}});
}

template <typename Target>
void Command::add_text(const std::string& name, Target& target, const std::string& help, const Details& details) const {
  CLI::Option& option = *app_.add_option(name, target, help);
  if constexpr (std::is_same_v<Target, std::string>) option.capture_default_str();
  set_details(option, details);
}
template void Command::add_text(const std::string&, std::string&, const std::string&, const Details&) const;
template void Command::add_text(const std::string&, std::optional<std::string>&, const std::string&,
                                const Details&) const;
template void Command::add_text(const std::string&, std::vector<std::string>&, const std::string&,
                                const Details&) const;
template void Command::add_text(const std::string&, std::vector<uint32_t>&, const std::string&, const Details&) const;

void Command::add_parsed(const std::string& name, const std::string& help, const Parse& parse,
                         const Details& details) const {
  const auto parse_one = [name, parse](const std::string& word) {
    if (const std::string refusal = parse(word); !refusal.empty()) throw CLI::ValidationError(name, refusal);
  };
  const auto parse_all = [parse_one](const std::vector<std::string>& words) {
    std::for_each(words.begin(), words.end(), parse_one);
  };
  set_details(details.most_words > 1 ? *app_.add_option_function<std::vector<std::string>>(name, parse_all, help)
                                     : *app_.add_option_function<std::string>(name, parse_one, help),
              details);
}

void Command::add_number(const std::string& name, const std::string& help, int64_t min, int64_t max,
                         std::function<void(int64_t)> store, const Details& details) const {
  const std::string range = std::to_string(min) + " to " + std::to_string(max);
  const auto parse = [range, min, max, store = std::move(store)](const std::string& text) -> std::string {
    const auto number = parse_number(text, min, max);
    if (!number) return "'" + text + "' is no number from " + range;
    store(*number);
    return "";
  };
  Details numbered = details;
  if (numbered.type == nullptr) numbered.type = "N";
  add_parsed(name, min == 0 && max == UINT32_MAX ? help : help + " (" + range + ")", parse, numbered);
}

void Command::add_subscription(uint32_t& target) const {
  add_number("--sub", target, "the subscription", {}, 1);
}

void Command::add_subscription(std::optional<uint32_t>& target, const std::string& otherwise) const {
  add_number("--sub", "the subscription", 0, 1, [&target](int64_t value) { target = static_cast<uint32_t>(value); },
             {.otherwise = otherwise.c_str()});
}

void Command::add_duration(uint32_t& target, const std::string& help) const {
  add_number("--for", target, help, {.type = "SECONDS", .otherwise = "no limit"});
}

// --- the line ---

void Context::require_end(uint32_t seconds, uint32_t count) const {
  if (!output.is_batch() || seconds > 0 || count > 0) return;
  throw Failure::of_usage("in a batch it needs an end", "Add --for SECONDS.");
}

CommandLine::CommandLine(bool is_in_batch)
    : app_(std::make_unique<CLI::App>("client of the cellular modem, through libpelmar_modemapi", kProgram)) {
  app_->fallthrough();  // global options may stand behind the command
  app_->require_subcommand(1);
  app_->formatter_fn([](const CLI::App* app, const std::string&, CLI::AppFormatMode) { return help_text(*app); });
  const Command global(*app_);
  app_->set_help_flag();
  if (!is_in_batch) add_program_options(global);
  global.add_flag("--json", settings_.json, "print JSON, one document a line");
  add_info_command(*this);
  add_item_commands(*this);
  add_events_command(*this);
  add_signal_command(*this);
  add_statistics_commands(*this);
  add_radio_commands(*this);
  add_modem_commands(*this);
  add_property_commands(*this);
  if (is_in_batch) return;
  add_trace_command(*this);
  add_batch_command(*this);
  auto [completion, shell] = add("completion", "print what a shell reads to complete commands", print_completion);
  completion.add_text("shell", shell, "the shell", {.is_required = true, .words = {"bash", "zsh"}});
  completion.add_examples({"bash >modem_api_test.bash", "zsh >_modem_api_test"});
  app_->footer(kNotes);  // at the end, because a command that is added takes over the footer
}

CommandLine::~CommandLine() = default;

void CommandLine::add_program_options(const Command& global) {
  app_->set_help_flag("-h,--help", "describe the program, or the command");
  app_->set_version_flag("--version", std::string(kProgram) + " " PELMAR_VERSION, "print the version");
  global.add_text(
      "--modem", settings_.modem,
      "the modem: a socket's path or @NAME, a device such as /dev/cdc-wdm0, proxy:DEVICE, qrtr or qrtr:NODE "
      "(default: PELMAR_MODEM)",
      {.type = "MODEM"});
  global.add_flag("-v,--verbose", settings_.verbose, "show messages and errors, on standard error");
  global.add_flag("--wait", settings_.waits, "wait for a modem that is not there yet");
  global.add_flag("--phone-rules", settings_.phone_rules,
                  "give callbacks and requests the rules of a phone's framework; a call that would never return there "
                  "ends with a message");
  global.add_text("--trace", settings_.trace,
                  "write every message to this capture, in place of an earlier one; %p in the name is the process id "
                  "(-: to standard output, and what the command prints to standard error)",
                  {.type = "FILE"});
  global.add_number("--timeout", settings_.seconds,
                    "end with an error after that many seconds, whatever the command waits for",
                    {.type = "SECONDS", .otherwise = "no limit"}, UINT32_MAX, 1);
}

std::string CommandLine::command() const {
  std::string words = path_of(last_command(*app_));
  std::replace(words.begin(), words.end(), ' ', '-');
  return words.substr(std::min(words.size(), std::string(kProgram).size() + 1));
}

std::optional<Failure> CommandLine::run(const Context& context) const {
  try {
    action_(context);
    return std::nullopt;
  } catch (const Failure& failure) {
    return failure;
  } catch (const std::exception& error) {
    return Failure("the command", error.what());
  }
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
  // A line of a batch has no help either.
  const std::string first = argc > 1 && app_->get_help_ptr() != nullptr ? argv[1] : "";
  if (first == "--manual") {
    fputs(manual_page(*app_, PELMAR_VERSION, argc > 2 ? argv[2] : "").c_str(), stdout);
    return kExitSuccess;
  }
  if (first == "--complete") {
    const std::span line(argv + 2, static_cast<size_t>(argc - 2));
    for (const std::string& word : complete(*app_, words_, line)) puts(word.c_str());
    return kExitSuccess;
  }
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app_->exit(error);
    settings_.json = app_->count("--json") > 0;
    action_ = [failure = wrong_usage(*app_, error)](const Context&) { throw failure; };
  }
  return std::nullopt;
}

CLI::App& CommandLine::add_group(const std::string& name, const std::string& summary) {
  CLI::App& group = *app_->add_subcommand(name, summary);
  group.require_subcommand(1);
  return group;
}

CLI::App& CommandLine::add_app(CLI::App& group, const std::string& name, const std::string& summary, Run run) {
  CLI::App& app = *group.add_subcommand(name, summary);
  app.callback([this, run = std::move(run)] { action_ = run; });
  return app;
}

// --- options of several commands ---

void DataInput::add_to(const Command& command) {
  command.add_text("data", words, "hexadecimal digits (\"0a 1b\", 0a1b), or @FILE (@-: standard input)",
                   {.type = "DATA"});
  command.add_text("--text", text, "the data as text", {.type = "TEXT", .excludes = {"data"}});
}

Bytes DataInput::read() const {
  Bytes bytes;
  if (text) {
    bytes.assign(text->begin(), text->end());
  } else if (words.empty()) {
    throw Failure::of_usage("no data is given", "Give pairs of hexadecimal digits (\"0a 1b\"), --text TEXT or @FILE.");
  } else if (words.size() == 1 && words[0].starts_with('@')) {
    const std::string path = words[0].substr(1);
    const bool is_input = path == "-";
    const std::string step = "reading the data from " + (is_input ? "standard input" : "the file '" + path + "'");
    const std::string content = read_file(is_input ? nullptr : path.c_str(), step, kMostInputBytes);
    bytes.assign(content.begin(), content.end());
  } else {
    bytes = parse_hex(join(words, " "));
  }
  bytes.reserve(1);  // the library takes no null pointer, also for no bytes
  return bytes;
}

void DataOutput::add_to(const Command& command) {
  command.add_text("-o,--output", file, "write the bytes to this file (-: standard output)", {.type = "FILE"});
  const auto parse = [this](const std::string& word) -> std::string {
    if (!word.starts_with('@') || word.size() == 1) return "'" + word + "' is no @FILE";
    file = word.substr(1);
    return "";
  };
  command.add_parsed("file", "the same as --output FILE", parse, {.type = "@FILE", .excludes = {"--output"}});
}

void DataOutput::report(Output& output, const Bytes& bytes, Json document, const std::string& title) const {
  if (file == "-") {
    require_no_documents(output, "--output -");
    return output.write({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  }
  put_bytes(document, bytes);
  const std::string heading = title + ": " + count_of(bytes.size(), "byte");
  if (file.empty()) return output.print(document, heading + "\n" + hex_dump(bytes, 2));
  write_file(file, bytes);
  document["file"] = file;
  output.print(document, heading + " written to " + file);
}

void require_no_documents(const Output& output, const std::string& option) {
  if (!output.is_json() && !output.is_batch()) return;
  const std::string other = output.is_batch() ? "a batch" : "--json";
  throw Failure::of_usage(option + " and " + other + " both write to standard output", "Name a file.");
}

void Confirmation::add_to(const Command& command) {
  command.add_flag("-y,--yes", yes, "do it without confirmation");
}

void Confirmation::require(const std::string& effect) const {
  if (yes) return;
  const std::string advice = "Repeat the command with --yes to confirm it.";
  if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
    throw Failure("", effect + " This was not confirmed, and there is no terminal to confirm it at.", advice);
  }
  fprintf(stderr, "%s Continue? [y/N] ", effect.c_str());
  std::string reply;
  std::getline(std::cin, reply);
  if (reply != "y" && reply != "yes") throw Failure("", "Nothing was done.");
}

}  // namespace pelmar::cli
