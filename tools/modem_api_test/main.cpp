// modem_api_test: the library's command-line client.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>

#include "command_line.h"
#include "message_trace.h"

namespace {

using namespace pelmar::cli;

int run(const CommandLine& line) {
  const Settings& settings = line.settings();
  if (settings.phone_rules) setenv("PELMAR_PLATFORM_RULES", "phone", 1);
  Output output(settings.json);
  output.set_command(line.command());
  if (!settings.trace.empty() && line.command() == "trace") {
    throw Failure::of_usage("'trace' reads a capture and sends no messages", "Leave out --trace.");
  }
  if (!settings.trace.empty()) {
    const bool is_output = settings.trace == "-";
    const std::string name = is_output ? "/dev/fd/" + std::to_string(output.give_away()) : settings.trace;
    setenv(pelmar::platform::kTraceVariable, name.c_str(), 1);
  }
  Inbox inbox;
  Session session(settings.modem, settings.trace, settings.waits, settings.verbose);
  const Failure time_up("the command", "it was not done in " + std::to_string(settings.seconds) + " s",
                        "Give it more time with --timeout SECONDS.");
  const auto conclude = [&](std::optional<Failure> failure, int end) -> int {
    // A signal frees the clients under a command that waits, so an error that the command reports after it is dropped.
    if (end > 0) return 128 + end;
    if (end == Signals::kTimeUp) failure = time_up;
    if (!failure) failure = session.trace_failure();
    if (!failure) return kExitSuccess;
    output.report(*failure);
    return failure->exit_status();
  };
  Signals signals(
      inbox, [&session] { session.close(); }, settings.seconds, conclude);
  const std::optional<Failure> failure = line.run({output, session, inbox, signals});
  return conclude(failure, signals.finish());
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine line;
  errno = 0;
  try {
    if (const auto status = line.parse(argc, argv)) {
      if (!std::cout.flush() || fflush(stdout) != 0 || ferror(stdout) != 0)
        throw Failure::of_system("writing the output");
      return *status;
    }
    Signals::block();
    return run(line);
  } catch (const Failure& failure) {
    remark(failure.what());
    return failure.exit_status();
  }
}
