// modem_sim: a simulated modem, and the operator's commands to one.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "console/control_client.h"
#include "environment.h"
#include "manager_protocol.h"
#include "serve.h"

namespace {

namespace platform = pelmar::platform;
using pelmar::sim::ControlClientOptions;
using pelmar::sim::SimulationOptions;

constexpr const char* kControlVariable = "PELMAR_SIM_CONTROL";

std::string control_socket_in(const std::string& storage) {
  return storage + "/control";
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
  serve.add_option("--pm-ack-ms", "what a voter has for acknowledging a step of the power (default: 2000)")
      ->each([&](const std::string& ms) { options.pm_acknowledge_limit = std::chrono::milliseconds(std::stoll(ms)); })
      ->check(CLI::Range(1, 3'600'000));
}

CLI::App* add_serve(CLI::App& app, SimulationOptions& options) {
  CLI::App* const serve = app.add_subcommand("serve", "serve QMUX clients on a socket until ended");
  serve->add_option("--socket", options.socket, "the clients' socket: a path, or @NAME of the abstract namespace")
      ->default_val(pelmar::kDefaultModemSocket);
  serve->add_option("--storage", options.storage, "directory of NV items, EFS and RF NV; created where missing")
      ->required();
  serve->add_option("--control", options.control, "the operator's socket (default: control in the storage directory)");
  serve->add_option("--max-entries", options.max_entries, "stored items and files at most; then storage is full")
      ->capture_default_str();
  serve->add_option("--starting-ms", "not ready for that long after the start")
      ->each([&](const std::string& ms) { options.starting_time = std::chrono::milliseconds(std::stoll(ms)); })
      ->check(CLI::Range(0, 3'600'000));
  serve->add_option("--reset-ms", "not ready for that long after a reset by a client, or a crash (default: 200)")
      ->each([&](const std::string& ms) { options.reset_time = std::chrono::milliseconds(std::stoll(ms)); })
      ->check(CLI::Range(0, 3'600'000));
  add_peripheral_manager(*serve, options);
  serve->add_option("--exit-when-idle", "end when no client was connected for that many seconds")
      ->each([&](const std::string& s) { options.exit_when_idle = std::chrono::seconds(std::stoll(s)); })
      ->check(CLI::Range(1, 1'000'000));
  serve->add_option("--seed", options.seed, "which radio weather the phone meets on its way")->capture_default_str();
  serve->add_option("--report-ms", "between two reports of registered statistics (default: 1000)")
      ->each([&](const std::string& ms) { options.report_period = std::chrono::milliseconds(std::stoll(ms)); })
      ->check(CLI::Range(10, 3'600'000));
  serve->add_option("--scenario", options.scenario, "play statistics values from that JSON file");
  serve->add_option("--clock-ms", "hold the modem's clock at that time; the operator moves it")
      ->each([&](const std::string& ms) { options.held_clock = std::chrono::milliseconds(std::stoll(ms)); })
      ->check(CLI::Range(0, 1'000'000'000));
  return serve;
}

CLI::App* add_ctl(CLI::App& app, ControlClientOptions& options, std::string& storage) {
  CLI::App* const ctl = app.add_subcommand("ctl", "send a command to a running modem");
  auto* const socket = ctl->add_option("--control", options.socket, "the operator's socket")->envname(kControlVariable);
  ctl->add_option("--storage", storage, "the modem's storage directory, which has the operator's socket in it")
      ->excludes(socket);
  ctl->add_flag("--json", options.json, "print the answer as JSON");
  ctl->prefix_command();
  ctl->footer(pelmar::sim::describe_commands());
  return ctl;
}

int run_ctl(const CLI::App& ctl, ControlClientOptions options, const std::string& storage) {
  if (!storage.empty()) options.socket = control_socket_in(storage);
  if (options.socket.empty()) {
    throw std::runtime_error(std::string("no control socket named: give --control, --storage or set ") +
                             kControlVariable);
  }
  std::vector<std::string> words = ctl.remaining();
  if (words.size() == 2 && words[0] == "scenario" && words[1] != "stop") words[1] = std::filesystem::absolute(words[1]);
  for (const std::string& word : words) options.command.append(options.command.empty() ? "" : " ").append(word);
  if (options.command.empty()) throw std::runtime_error("no command given: 'modem_sim ctl --help' lists them");
  return pelmar::sim::send_control_command(options);
}

int run(int argc, char** argv) {
  CLI::App app("A simulated modem that speaks QMI over QMUX", "modem_sim");
  app.require_subcommand(1);
  SimulationOptions serve_options;
  ControlClientOptions ctl_options;
  std::string ctl_storage;
  CLI::App* const serve = add_serve(app, serve_options);
  CLI::App* const ctl = add_ctl(app, ctl_options, ctl_storage);
  CLI11_PARSE(app, argc, argv);

  if (*ctl) return run_ctl(*ctl, ctl_options, ctl_storage);
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
  } catch (const std::exception& error) {
    fprintf(stderr, "modem_sim: %s\n", error.what());
    return 1;
  }
}
