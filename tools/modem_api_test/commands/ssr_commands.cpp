// ssr: what the system does when the modem crashes, restart it alone or dump its memory.
#include <algorithm>
#include <iterator>
#include <string>

#include "command_line.h"
#include "commands/commands.h"
#include "cutils/properties.h"
#include "failure.h"
#include "json.h"
#include "options.h"
#include "pelmar_ssr.h"

namespace pelmar::cli {

namespace {

struct RestartType {
  const char* word;
  const char* name;
  const char* meaning;
};

// By number.
constexpr RestartType kTypes[] = {
    {"def", "MODEM_RESTART_LEVEL_ID_DEF", "the saved level is in force"},
    {"ssr", "MODEM_RESTART_LEVEL_ID_SSR", "a crashed modem restarts alone"},
    {"dump", "MODEM_RESTART_LEVEL_ID_DUMP", "a crashed modem is dumped"},
    {"invalid", "MODEM_RESTART_LEVEL_ID_INVALID", "no known level is in force"},
};
constexpr size_t kSettableTypes = 3;

void get_type(const Context& context, const NoValues&) {
  const int32_t type = pelmar_get_modem_ssr_type();
  const RestartType& row = kTypes[std::clamp<int32_t>(type, 0, std::size(kTypes) - 1)];
  context.output.print({{"type", type}, {"name", row.name}},
                       std::string("restart type ") + row.word + " (" + std::to_string(type) + "): " + row.meaning);
}

struct SetValues {
  std::string type;
};

void set_type(const Context& context, const SetValues& values) {
  const auto row = std::find_if(std::begin(kTypes), std::end(kTypes),
                                [&](const RestartType& each) { return values.type == each.word; });
  const auto type = static_cast<int32_t>(row - std::begin(kTypes));
  const bool is_written = pelmar_set_modem_ssr_type(type) == 1;
  context.output.print({{"type", type}, {"name", row->name}, {"written", is_written}},
                       std::string("restart type ") + row->word +
                           (is_written ? ": written" : ": nothing to write, it is in force or nothing is saved"));
}

void show_name(const Context& context, const NoValues&) {
  char name[PROPERTY_VALUE_MAX] = {};  // the library does not terminate it
  uint32_t room = sizeof name - 1;
  pelmar_get_modem_ssr_type_name(name, &room);
  context.output.print({{"level", name}}, name);
}

struct WaitValues {
  int32_t seconds = -1;  // as the property says
};

void wait(const Context& context, const WaitValues& values) {
  const int32_t waited = pelmar_modem_ssr_wait_s(values.seconds);
  context.output.print({{"waited_s", waited}}, "waited " + std::to_string(std::max(waited, 0)) + " s");
}

}  // namespace

void add_ssr_commands(CommandLine& line) {
  CLI::App& group = line.add_group("ssr", "what happens when the modem crashes: the restart type");
  line.add<NoValues>(group, "get", "show the restart type; the first time it also saves the level", get_type);
  {
    auto [command, values] = line.add<SetValues>(group, "set", "switch the restart type", set_type);
    std::vector<std::string> words;
    for (size_t i = 0; i < kSettableTypes; ++i) words.emplace_back(kTypes[i].word);
    command.add_option("type", values.type, "ssr: restart alone; dump; def: as it was saved")
        ->required()
        ->check(CLI::IsMember(words));
  }
  line.add<NoValues>(group, "name", "show the restart level's text", show_name);
  {
    auto [command, values] = line.add<WaitValues>(group, "wait", "wait while a restart settles", wait);
    add_number(command, "seconds", "how long (default: persist.radio.ssr_wait_s, else 5)", 0, 3600,
               [&target = values.seconds](int64_t seconds) { target = static_cast<int32_t>(seconds); });
  }
}

}  // namespace pelmar::cli
