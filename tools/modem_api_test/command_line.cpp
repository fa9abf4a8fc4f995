#include "command_line.h"

#include "commands/commands.h"
#include "failure.h"
#include "options.h"

namespace pelmar::cli {

namespace {

constexpr const char* kFooter = R"(
Data is given as hexadecimal digits ("0a 1b", 0a1b), as --text TEXT, or as @FILE (@-: standard input).
Without a modem named, a simulated one is started; it keeps its storage between runs.
Exit status: 0 success, 1 failure, 2 wrong usage, 128 and the signal's number when ended by a signal.)";

}  // namespace

CommandLine::CommandLine() : app_("Client of the cellular modem, through libpelmar_modemapi.", "modem_api_test") {
  app_.fallthrough();  // global options may stand behind the command
  app_.require_subcommand(1);
  app_.footer(kFooter);
  app_.add_option("--modem", settings_.modem, "the modem's socket, a path or @NAME (default: PELMAR_QMI_SOCKET)")
      ->type_name("SOCKET");
  app_.add_flag("--json", settings_.json, "print JSON, one document a line");
  app_.add_flag("-v,--verbose", settings_.verbose, "show messages and errors, on standard error");
  app_.add_flag("--wait", settings_.waits, "wait for a modem that is not there yet");
  add_number(app_, "--timeout", "end with an error after that many seconds", 1, UINT32_MAX, [this](int64_t value) {
    settings_.seconds = static_cast<uint32_t>(value);
  })->type_name("SECONDS");
  for (const AddCommands add_commands : command_families()) add_commands(*this);
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
  try {
    app_.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::RequiredError& error) {
    // CLI11 misses the command first, and only then sees the word that is none.
    const std::vector<std::string> words = app_.remaining(true);
    if (words.empty()) return app_.exit(error) == 0 ? kExitSuccess : kExitUsage;
    remark("there is no command '" + words.front() + "'; --help lists them");
    return kExitUsage;
  } catch (const CLI::ParseError& error) {
    return app_.exit(error) == 0 ? kExitSuccess : kExitUsage;
  }
}

CLI::App& CommandLine::add_group(const std::string& name, const std::string& summary) {
  CLI::App& group = *app_.add_subcommand(name, summary);
  group.require_subcommand(1);
  return group;
}

}  // namespace pelmar::cli
