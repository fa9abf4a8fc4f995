// batch: commands from standard input or a file, one a line, in one process that keeps its connections to the modem.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "command_line.h"

namespace pelmar::cli {

namespace {

struct BatchValues {
  std::string file = "-";
  bool stops = false;
};

std::optional<Failure> run_line(const Context& context, std::string_view text) {
  context.output.set_command("batch");
  for (size_t left = context.inbox.waiting(); left > 0; --left) context.inbox.next(Clock::now());
  take_last_exchange();
  CommandLine line(true);
  std::vector<char*> arguments = {const_cast<char*>("")};
  std::vector<std::string> words;
  try {
    words = split_words(text);
  } catch (const Failure& failure) {
    return failure;
  }
  for (std::string& word : words) arguments.push_back(word.data());
  if (line.parse(static_cast<int>(arguments.size()), arguments.data())) return Failure::of_usage("it runs no command");
  context.output.set_command(line.command());
  std::optional<Failure> failure = line.run(context);
  if (failure && failure->is_loss()) context.session.restart();
  return failure;
}

void run_batch(const Context& context, const BatchValues& values) {
  const std::string step = "reading '" + values.file + "'";
  const bool is_input = values.file == "-";
  const File input(is_input ? fdopen(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3), "r") : fopen(values.file.c_str(), "re"),
                   &fclose);
  if (input == nullptr) throw Failure::of_system(step);
  close_standard_input();  // it is the batch's: a command that reads it too fails
  bool has_failed = false;
  static char* line = nullptr;  // until the process ends
  static size_t room = 0;
  for (size_t number = 1; !context.inbox.is_interrupted() && !(has_failed && values.stops); ++number) {
    const ssize_t length = getline(&line, &room, input.get());
    if (length < 0) break;
    const std::string_view text(line, static_cast<size_t>(length));
    const size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == text.npos || text[begin] == '#') continue;
    context.output.begin_line(number);
    const std::optional<Failure> failure = run_line(context, text);
    has_failed |= failure.has_value();
    context.output.end_line(failure);
  }
  context.output.set_command("batch");
  if (ferror(input.get()) != 0) throw Failure::of_system(step);
  if (has_failed) throw Failure::of_silence();
}

}  // namespace

void add_batch_command(CommandLine& line) {
  auto [command, values] = line.add("batch", "run commands from a file, one a line, over one connection", run_batch);
  command.add_notes(
      "Each command is a line as it stands behind modem_api_test, split and quoted as in a shell; # begins a comment. "
      "For each a line of JSON is printed at once, with the line's number in \"line\", and with what the command "
      "printed in \"documents\" where that is not one document. Commands that never end need --for SECONDS. The "
      "exit status is 1 where a command failed.");
  command.add_examples({"commands.txt", "--stop-on-error commands.txt"});
  command.add_text("file", values.file, "the commands (-: standard input)", {.type = "FILE"});
  command.add_flag("--stop-on-error", values.stops, "end after the first command that fails");
}

}  // namespace pelmar::cli
