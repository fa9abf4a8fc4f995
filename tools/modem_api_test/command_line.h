// The command line: global options, and the commands that the families in commands/ register.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "inbox.h"
#include "output.h"
#include "session.h"
#include "signals.h"

namespace pelmar::cli {

// What a command works with.
struct Context {
  Output& output;
  Session& session;
  Inbox& inbox;
  Signals& signals;
};

// Of a command without options.
struct NoValues {};

struct Settings {
  std::string modem;
  bool json = false;
  bool verbose = false;
  bool waits = false;
  uint32_t seconds = 0;  // 0: without limit
};

class CommandLine {
 public:
  CommandLine();

  // Returns the exit status when there is nothing to run: help was asked for, or the line is wrong.
  std::optional<int> parse(int argc, char** argv);

  const Settings& settings() const { return settings_; }
  void run(const Context& context) const { action_(context); }

  CLI::App& root() { return app_; }

  // A command that only holds others.
  CLI::App& add_group(const std::string& name, const std::string& summary);

  // Adds a command: its own sub-command of CLI11, for its options, and the values that they fill, which live until the
  // command has run.
  template <typename Values>
  std::pair<CLI::App&, Values&> add(const std::string& name, const std::string& summary,
                                    void (*action)(const Context&, const Values&)) {
    return add<Values>(app_, name, summary, action);
  }

  template <typename Values, typename Action>
  std::pair<CLI::App&, Values&> add(CLI::App& group, const std::string& name, const std::string& summary,
                                    Action action) {
    auto values = std::make_shared<Values>();
    CLI::App& command = *group.add_subcommand(name, summary);
    command.callback(
        [this, action, values] { action_ = [action, values](const Context& context) { action(context, *values); }; });
    return {command, *values};
  }

 private:
  CLI::App app_;
  Settings settings_;
  std::function<void(const Context&)> action_;
};

}  // namespace pelmar::cli
