// modem_sim: a process that is a simulated modem (serve), the user's commands to one (ctl), and recordings made into
// scenarios for one (scenario).
#include <signal.h>
#include <sys/signalfd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "console/commands.h"
#include "environment.h"
#include "io/text.h"
#include "manager_protocol.h"
#include "printable_text.h"
#include "scenario/recording.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

constexpr const char* kProgram = "modem_sim";
constexpr const char* kControlName = "/control";  // in the storage
constexpr const char* kControlVariable = "PELMAR_SIM_CONTROL";
constexpr const char* kNumber = "NUMBER";
constexpr const char* kMilliseconds = "MILLISECONDS";
constexpr uint64_t kHourMs = 3'600'000;

// Memory that is set aside for the time when the system gives no more. One in a process, of one thread.
//
// The first allocation that fails frees the reserve and is tried again, so that the modem can go on: dropping a
// connection for lack of memory needs some memory. An allocation as large as a connection's input does not fit into the
// reserve and throws.
class MemoryReserve {
 public:
  MemoryReserve() {
    restore();
    std::set_new_handler(release);
  }
  ~MemoryReserve() {
    std::set_new_handler(nullptr);
    free(memory_);
  }
  MemoryReserve(const MemoryReserve&) = delete;
  MemoryReserve& operator=(const MemoryReserve&) = delete;

  // Called between events. Allocates the reserve again if it was used; returns false if that fails.
  bool restore() {
    if (memory_ == nullptr) memory_ = malloc(kBytes);
    return memory_ != nullptr;
  }

 private:
  // Less than a connection's input buffer has, so that the end of one connection restores it.
  static constexpr size_t kBytes = size_t{60} << 10;

  static void release() {
    if (memory_ == nullptr) throw std::bad_alloc();
    free(memory_);
    memory_ = nullptr;
  }

  static inline void* memory_ = nullptr;
};

// Ends the loop on SIGINT and SIGTERM.
class EndSignals final : public EventLoop::Watcher {
 public:
  explicit EndSignals(EventLoop& loop) : loop_(loop) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    fd_.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd_) throw std::system_error(errno, std::generic_category(), "signalfd");
    loop_.watch(fd_.get(), EPOLLIN, *this);
  }

  void on_ready(uint32_t) override { loop_.stop(); }

 private:
  EventLoop& loop_;
  UniqueFd fd_;
};

// Serves until a signal, a command or idleness ends it; then the socket files are removed.
void serve(const SimulationOptions& options) {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a write beyond the process's limit fails instead; the response has the error
  Simulation simulation(options);
  MemoryReserve reserve;
  simulation.loop.after_each_round([&](bool lacked_memory) {
    const bool is_restored = reserve.restore();
    return (lacked_memory || !is_restored) && simulation.drop_connection();
  });
  const EndSignals signals(simulation.loop);
  printf("modem_sim: ready on %s\n", options.socket.c_str());
  fflush(stdout);
  simulation.run();
}

int report(const std::exception& error, ExitStatus status) {
  fprintf(stderr, "modem_sim: %s\n", printable_text(error.what()).c_str());
  return status;
}

template <std::unsigned_integral Value>
void assign(Value& value, uint64_t number) {
  value = static_cast<Value>(number);
}
template <typename Rep, typename Period>
void assign(std::chrono::duration<Rep, Period>& value, uint64_t number) {
  value = std::chrono::duration<Rep, Period>(number);
}
template <typename Value>
void assign(std::optional<Value>& value, uint64_t number) {
  assign(value.emplace(), number);
}

// An option whose value is a number, decimal or 0x..., within these bounds.
template <typename Value>
void add_number(CLI::App& app, const std::string& name, const char* unit, const std::string& help, uint64_t least,
                uint64_t most, Value& value) {
  const auto parse = [=, &value](const std::string& text) {
    const auto number = parse_number(text);
    if (!number || *number < least || *number > most) {
      throw CLI::ValidationError(
          name, "'" + text + "' is no number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    assign(value, *number);
  };
  app.add_option_function<std::string>(name, parse, help)->type_name(unit);
}

CLI::App* add_serve(CLI::App& app, SimulationOptions& options) {
  CLI::App* const serve = app.add_subcommand("serve", "serve clients until ended");
  serve->add_option("--socket", options.socket, "the clients' socket: a path, or @NAME of the abstract namespace")
      ->default_val(kDefaultModem);
  serve->add_option("--device", options.device,
                    "also serve a character device: a pseudo-terminal, with a symbolic link to it at this path");
  serve->add_flag("--qrtr", options.qrtr, "also serve clients of this kernel's QRTR, of every user");
  serve->add_option("--storage", options.storage, "directory of NV items, EFS and RF NV; created where missing")
      ->required();
  serve->add_flag_callback(
      "--any-user", [&] { options.admission = Admission::kEveryUser; },
      "admit clients and voters of every user on abstract sockets (default: of this user and root)");
  serve->add_option("--control", options.control, "the control socket (default: control in the storage directory)");
  add_number(*serve, "--max-entries", kNumber, "stored items and files at most; then storage is full (default: 4096)",
             0, SIZE_MAX, options.max_entries);
  add_number(*serve, "--starting-ms", kMilliseconds, "not ready for that long after the start", 0, kHourMs,
             options.starting_time);
  add_number(*serve, "--reset-ms", kMilliseconds,
             "not ready for that long after a reset by a client, or a crash (default: 200)", 0, kHourMs,
             options.reset_time);
  serve
      ->add_option(
          "--pm-socket", options.pm_socket,
          "have a peripheral manager on this socket: the modem has power while a process votes for it (without "
          "a name: .pm added to the clients' socket)")
      ->expected(0, 1)
      ->type_name("SOCKET");
  serve->add_option("--pm-device", options.pm_device, "the modem's name at the peripheral manager")
      ->check([](const std::string& name) { return platform::power::is_good_name(name) ? "" : "is no name"; })
      ->capture_default_str();
  add_number(*serve, "--pm-ack-ms", kMilliseconds,
             "what a voter has for acknowledging a step of the power (default: 2000)", 1, kHourMs,
             options.pm_acknowledge_limit);
  add_number(*serve, "--exit-when-idle", kNumber, "end when no client was connected for that many seconds", 1,
             1'000'000, options.exit_when_idle);
  add_number(*serve, "--seed", kNumber, "seed of the random fading and of the blocking of antennas (default: 1)", 0,
             UINT64_MAX, options.seed);
  add_number(*serve, "--report-ms", kMilliseconds, "between two reports of registered statistics (default: 1000)", 10,
             kHourMs, options.report_period);
  serve->add_option("--scenario", options.scenario, "play statistics values from that JSON file");
  serve->add_option("--trace", options.trace,
                    "write every message of every client to this capture (pcapng), in place of an earlier one; %p in "
                    "the name is the process id");
  auto* const replay = serve->add_option(
      "--replay", options.replay, "respond and send indications as this capture has them, instead of the services");
  serve
      ->add_option("--speed", options.replay_speed,
                   "how many times faster than recorded a capture is played (default: 1)")
      ->check(CLI::Range(0.001, 1e6))
      ->needs(replay)
      ->type_name(kNumber);
  add_number(*serve, "--clock-ms", kMilliseconds, "hold the modem's clock at that time; 'ctl clock' moves it", 0,
             1'000'000'000, options.held_clock);
  return serve;
}

struct CtlOptions {
  std::string control;
  std::string storage;
  bool as_json = false;
};

CLI::App* add_ctl(CLI::App& app, CtlOptions& options) {
  CLI::App* const ctl = app.add_subcommand("ctl", "send a command to a running modem");
  auto* const socket =
      ctl->add_option("--control", options.control,
                      std::string("the control socket (default: that of --storage, else ") + kControlVariable + ")");
  ctl->add_option("--storage", options.storage, "the modem's storage directory, which has the control socket in it")
      ->excludes(socket);
  ctl->add_flag("--json", options.as_json, "print the response as JSON");
  ctl->prefix_command();
  ctl->footer(describe_commands());
  return ctl;
}

int run_ctl(const CLI::App& ctl, const CtlOptions& options) {
  std::string socket = options.control;
  if (socket.empty() && !options.storage.empty()) socket = options.storage + kControlName;
  if (socket.empty()) socket = environment(kControlVariable);
  if (socket.empty()) {
    throw CommandError(std::string("no control socket named: give --control, --storage or set ") + kControlVariable);
  }
  std::vector<std::string> words = ctl.remaining();
  if (words.size() == 2 && words[0] == "scenario" && words[1] != "stop") words[1] = std::filesystem::absolute(words[1]);
  std::string command;
  for (const std::string& word : words) command.append(command.empty() ? "" : " ").append(word);
  if (command.empty()) throw CommandError("no command given: 'modem_sim ctl --help' lists them");
  return send_control_command(socket, command, options.as_json);
}

void print_scenario(const std::string& name) {
  std::ifstream file;
  const bool is_input = name == "-";
  if (!is_input) file.open(name);
  if (!is_input && !file) throw std::runtime_error("cannot read '" + name + "': " + strerror(errno));
  const std::string text = scenario_of_recording(is_input ? std::cin : file, is_input ? "standard input" : name);
  fwrite(text.data(), 1, text.size(), stdout);
}

// Throws std::runtime_error where something that was printed could not be written.
void flush_output() {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return;
  throw std::runtime_error(std::string("cannot write to standard output: ") + strerror(errno));
}

int report_wrong_usage(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<CLI::App*> commands = app.get_subcommands();
  const std::vector<std::string> words = app.remaining(true);
  std::string place = kProgram;
  std::string reason = error.what();
  if (!commands.empty()) {
    place += " " + commands[0]->get_name();
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError)) {
      reason = "'" + words.front() + "' is not expected";
    }
  } else {
    reason = words.empty() ? "a command is missing" : "there is no command '" + words.front() + "'";
  }
  report(std::runtime_error(reason), kExitUsage);
  fprintf(stderr, "  '%s --help' lists the commands and options.\n", place.c_str());
  return kExitUsage;
}

int run(int argc, char** argv) {
  CLI::App app("A simulated modem with QMI over QMUX and QRTR", kProgram);
  app.set_version_flag("--version", std::string(kProgram) + " " PELMAR_VERSION, "print the version");
  app.require_subcommand(1);
  SimulationOptions serve_options;
  CtlOptions ctl_options;
  CLI::App* const serve_command = add_serve(app, serve_options);
  CLI::App* const ctl = add_ctl(app, ctl_options);
  std::string recording;
  CLI::App* const scenario = app.add_subcommand("scenario", "print the scenario that plays a recording of 'signal'");
  scenario->add_option("recording", recording, "CSV or JSON; - is standard input")->required();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) return report_wrong_usage(app, error);
    app.exit(error);
    flush_output();
    return kExitSuccess;
  }

  if (*ctl || *scenario) {
    int status = kExitSuccess;
    if (*ctl) status = run_ctl(*ctl, ctl_options);
    if (*scenario) print_scenario(recording);
    flush_output();
    return status;
  }
  if (serve_options.control.empty()) serve_options.control = serve_options.storage + kControlName;
  if (serve_command->count("--pm-socket") > 0 && serve_options.pm_socket.empty()) {
    serve_options.pm_socket = platform::power::default_manager_socket(serve_options.socket);
  }
  if (*serve_command) serve(serve_options);
  return 0;
}

}  // namespace

}  // namespace pelmar::sim

int main(int argc, char** argv) {
  using namespace pelmar::sim;
  try {
    return run(argc, argv);
  } catch (const CommandError& error) {
    return report(error, kExitUsage);
  } catch (const std::exception& error) {
    return report(error, kExitFailure);
  }
}
