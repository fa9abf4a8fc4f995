// modem_sim: a simulated modem, and the operator's commands to one.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "console/control_client.h"
#include "environment.h"
#include "io/numbers.h"
#include "manager_protocol.h"
#include "printable_text.h"
#include "serve.h"

namespace {

namespace platform = pelmar::platform;
using pelmar::sim::Admission;
using pelmar::sim::ControlClientOptions;
using pelmar::sim::SimulationOptions;

constexpr const char* kControlVariable = "PELMAR_SIM_CONTROL";
constexpr uint64_t kHourMs = 3'600'000;

// The command line lacks something.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

int report(const std::exception& error, pelmar::sim::ExitStatus status) {
  fprintf(stderr, "modem_sim: %s\n", pelmar::printable_text(error.what()).c_str());
  return status;
}

std::string control_socket_in(const std::string& storage) {
  return storage + "/control";
}

// An option whose value is a number, decimal or 0x..., within these bounds.
CLI::Option* add_number(CLI::App& app, const std::string& name, const std::string& help, uint64_t least, uint64_t most,
                        std::function<void(uint64_t)> take) {
  const auto parse = [=, take = std::move(take)](const std::string& text) {
    const auto number = pelmar::sim::parse_number(text);
    if (!number || *number < least || *number > most) {
      throw CLI::ValidationError(
          name, "'" + text + "' is no number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    take(*number);
  };
  return app.add_option_function<std::string>(name, parse, help)->type_name("NUMBER");
}

void add_milliseconds(CLI::App& app, const std::string& name, const std::string& help, uint64_t least, uint64_t most,
                      std::function<void(std::chrono::milliseconds)> take) {
  add_number(app, name, help, least, most, [take = std::move(take)](uint64_t ms) {
    take(std::chrono::milliseconds(ms));
  })->type_name("MILLISECONDS");
}

void add_peripheral_manager(CLI::App& serve, SimulationOptions& options) {
  serve
      .add_option("--pm-socket", options.pm_socket,
                  "have a peripheral manager on this socket: the modem has power while a process votes for it (without "
                  "a name: .pm added to the clients' socket)")
      ->expected(0, 1)
      ->type_name("SOCKET");
  serve.add_option("--pm-device", options.pm_device, "the modem's name at the peripheral manager")
      ->check([](const std::string& name) { return platform::power::is_good_name(name) ? "" : "is no name"; })
      ->capture_default_str();
  add_milliseconds(serve, "--pm-ack-ms", "what a voter has for acknowledging a step of the power (default: 2000)", 1,
                   kHourMs, [&](auto ms) { options.pm_acknowledge_limit = ms; });
}

CLI::App* add_serve(CLI::App& app, SimulationOptions& options) {
  CLI::App* const serve = app.add_subcommand("serve", "serve QMUX clients on a socket until ended");
  serve->add_option("--socket", options.socket, "the clients' socket: a path, or @NAME of the abstract namespace")
      ->default_val(pelmar::kDefaultModemSocket);
  serve->add_option("--storage", options.storage, "directory of NV items, EFS and RF NV; created where missing")
      ->required();
  serve->add_flag_callback(
      "--any-user", [&] { options.admission = Admission::kEveryUser; },
      "admit clients and voters of every user on abstract sockets (default: of this user and root)");
  serve->add_option("--control", options.control, "the operator's socket (default: control in the storage directory)");
  add_number(*serve, "--max-entries", "stored items and files at most; then storage is full (default: 4096)", 0,
             SIZE_MAX, [&](uint64_t entries) { options.max_entries = entries; });
  add_milliseconds(*serve, "--starting-ms", "not ready for that long after the start", 0, kHourMs,
                   [&](auto ms) { options.starting_time = ms; });
  add_milliseconds(*serve, "--reset-ms", "not ready for that long after a reset by a client, or a crash (default: 200)",
                   0, kHourMs, [&](auto ms) { options.reset_time = ms; });
  add_peripheral_manager(*serve, options);
  add_number(*serve, "--exit-when-idle", "end when no client was connected for that many seconds", 1, 1'000'000,
             [&](uint64_t seconds) { options.exit_when_idle = std::chrono::seconds(seconds); });
  add_number(*serve, "--seed", "which fading and which hands on the antennas the radio picture has (default: 1)", 0,
             UINT64_MAX, [&](uint64_t seed) { options.seed = seed; });
  add_milliseconds(*serve, "--report-ms", "between two reports of registered statistics (default: 1000)", 10, kHourMs,
                   [&](auto ms) { options.report_period = ms; });
  serve->add_option("--scenario", options.scenario, "play statistics values from that JSON file");
  add_milliseconds(*serve, "--clock-ms", "hold the modem's clock at that time; the operator moves it", 0, 1'000'000'000,
                   [&](auto ms) { options.held_clock = ms; });
  return serve;
}

struct CtlOptions {
  ControlClientOptions client;
  std::string storage;
};

CLI::App* add_ctl(CLI::App& app, CtlOptions& options) {
  CLI::App* const ctl = app.add_subcommand("ctl", "send a command to a running modem");
  auto* const socket =
      ctl->add_option("--control", options.client.socket,
                      std::string("the operator's socket (default: that of --storage, else ") + kControlVariable + ")");
  ctl->add_option("--storage", options.storage, "the modem's storage directory, which has the operator's socket in it")
      ->excludes(socket);
  ctl->add_flag("--json", options.client.json, "print the response as JSON");
  ctl->prefix_command();
  ctl->footer(pelmar::sim::describe_commands());
  return ctl;
}

// What was named on the command line comes before the environment.
std::string control_socket(const CtlOptions& options) {
  if (!options.client.socket.empty()) return options.client.socket;
  if (!options.storage.empty()) return control_socket_in(options.storage);
  return pelmar::environment(kControlVariable);
}

int run_ctl(const CLI::App& ctl, const CtlOptions& options) {
  ControlClientOptions client = options.client;
  client.socket = control_socket(options);
  if (client.socket.empty()) {
    throw UsageError(std::string("no control socket named: give --control, --storage or set ") + kControlVariable);
  }
  std::vector<std::string> words = ctl.remaining();
  if (words.size() == 2 && words[0] == "scenario" && words[1] != "stop") words[1] = std::filesystem::absolute(words[1]);
  for (const std::string& word : words) client.command.append(client.command.empty() ? "" : " ").append(word);
  if (client.command.empty()) throw UsageError("no command given: 'modem_sim ctl --help' lists them");
  return pelmar::sim::send_control_command(client);
}

int run(int argc, char** argv) {
  CLI::App app("A simulated modem that speaks QMI over QMUX", "modem_sim");
  app.require_subcommand(1);
  SimulationOptions serve_options;
  CtlOptions ctl_options;
  CLI::App* const serve = add_serve(app, serve_options);
  CLI::App* const ctl = add_ctl(app, ctl_options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? pelmar::sim::kExitSuccess : pelmar::sim::kExitUsage;
  }

  if (*ctl) return run_ctl(*ctl, ctl_options);
  if (serve_options.control.empty()) serve_options.control = control_socket_in(serve_options.storage);
  if (serve->count("--pm-socket") > 0 && serve_options.pm_socket.empty()) {
    serve_options.pm_socket = platform::power::default_manager_socket(serve_options.socket);
  }
  if (*serve) pelmar::sim::serve(serve_options);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const UsageError& error) {
    return report(error, pelmar::sim::kExitUsage);
  } catch (const std::exception& error) {
    return report(error, pelmar::sim::kExitFailure);
  }
}
