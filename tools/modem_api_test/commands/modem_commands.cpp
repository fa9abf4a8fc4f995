// The modem as a whole. modem stop: the end of the program's own; shutdown-notice and reset; power: this process's vote
// for the modem's power, who else votes, and the steps of the power as they come; ssr: what the system does when the
// modem crashes, restart it alone or dump its memory.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "command_line.h"
#include "cutils/properties.h"
#include "environment.h"
#include "events.h"
#include "manager_link.h"
#include "modem_api_peripheral_mng.h"
#include "pelmar_ssr.h"

namespace pelmar::cli {

namespace {

// --- shutdown-notice and reset ---

constexpr struct {
  const char* name;
  const char* summary;
  const char* effect;  // begins the question for confirmation
  const char* step;
  const char* done;
  modem_api_result (*call)(int32_t client);
} kCommands[] = {
    {"shutdown-notice", "notify the modem that the phone is about to power off",
     "The modem prepares for the phone's end.", "notifying the modem of the shutdown",
     "modem: notified of the shutdown", modem_api_notify_shutdown},
    {"reset", "reset the modem", "The modem restarts; every connection to it is lost for a while.",
     "resetting the modem", "modem: reset", modem_api_reset_modem},
};

void stop_modem(const Context& context, const NoValues&) {
  const bool is_stopped = context.session.stop_own_modem();
  context.output.print({{"stopped", is_stopped}},
                       is_stopped ? "simulated modem: stopped" : "simulated modem: none runs");
}

// --- power ---
//
// A vote belongs to the process that casts it, so `vote` lasts as long as its process, and `release` ends such
// processes.

using namespace std::chrono_literals;
using platform::power::ManagerStatus;
using platform::power::state_text;
using platform::power::VoterEntry;

constexpr auto kInterval = 250ms;
constexpr auto kReleaseTimeout = 10s;
constexpr const char* kNoManager =
    "A simulated modem has one with 'modem_sim serve --pm-socket'; PELMAR_PM_SOCKET or --modem names it.";

// Without PELMAR_PM_SOCKET, the manager's socket is derived from the modem's.
std::string find_manager(const Context& context) {
  if (environment("PELMAR_PM_SOCKET").empty()) context.session.modem();
  std::string socket = platform::power::manager_socket();
  if (context.session.waits()) context.session.wait_for_listener(socket, "the peripheral manager");
  return socket;
}

// `otherwise`: what else may be the reason for no response.
Failure no_manager(const std::string& step, const std::string& socket, const std::string& otherwise = "") {
  const std::string obstacle = find_obstacle(socket);
  if (!obstacle.empty()) return {step, socket + ": " + obstacle};
  return {step, "no peripheral manager responds on " + socket + otherwise, kNoManager};
}

ManagerStatus query_manager(const std::string& socket, const std::string& step) {
  const std::optional<ManagerStatus> status = platform::power::query_status(socket);
  if (!status) throw no_manager(step, socket);
  return *status;
}

Failure lost_manager(const std::string& step) {
  return {step, "the peripheral manager is gone, and this registration with it", "Repeat the command when it is back."};
}

void report(const Context& context, pm_event state, WallClock::time_point time = WallClock::now()) {
  const Json document = {{"time", utc_text(time)}, {"power", state_text(state)}, {"event", static_cast<int>(state)}};
  context.output.print(document, local_text(time) + "  modem " + state_text(state));
}

struct PowerValues {
  std::string device = "modem";
  FollowLimits limits;

  void add_to(const Command& command) {
    command.add_text("--device", device, "the peripheral's name at the manager", {.type = "NAME"});
  }
};

// --- power vote ---

// This process's registration through the library.
class Registration {
 public:
  Registration(const std::string& device, const std::string& socket) {
    if (modem_api_peripheral_mng_init(device.c_str()) == 0) return;
    throw no_manager("registering as a voter for '" + device + "'", socket, ", or it has no such peripheral");
  }
  ~Registration() { modem_api_peripheral_mng_deinit(); }
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;
};

void vote(const Context& context, const PowerValues& values) {
  const uint32_t seconds = values.limits.seconds;
  context.require_end(seconds);
  const std::string socket = find_manager(context);
  const Signals::Follower ends_by_itself(context.signals);
  const Registration registration(values.device, socket);
  if (modem_api_peripheral_mng_vote() != 0) throw lost_manager("voting for the modem's power");
  context.output.print({{"vote", "cast"}, {"device", values.device}},
                       "voted for the power of '" + values.device + "'" + (seconds > 0 ? "" : "; Ctrl-C ends"));
  const auto deadline = deadline_after(seconds);
  std::optional<pm_event> reported;
  do {
    const pm_event state = query_manager(socket, "holding the vote").state;
    if (state != reported) report(context, state);
    reported = state;
    // A repeated vote changes nothing, and fails where the manager that has it is gone.
    if (modem_api_peripheral_mng_vote() != 0) throw lost_manager("holding the vote");
  } while ((!deadline || Clock::now() < *deadline) && context.inbox.pause_until(Clock::now() + kInterval));
  modem_api_peripheral_mng_release_vote();
  context.output.print({{"vote", "released"}, {"device", values.device}}, "vote taken back");
}

// --- power release ---

bool runs_this_program(uint32_t process) {
  struct stat own {};
  struct stat other {};
  return stat("/proc/self/exe", &own) == 0 &&
         stat(("/proc/" + std::to_string(process) + "/exe").c_str(), &other) == 0 && own.st_dev == other.st_dev &&
         own.st_ino == other.st_ino;
}

auto votes(const ManagerStatus& status) {
  return std::count_if(status.voters.begin(), status.voters.end(), [](const VoterEntry& voter) { return voter.votes; });
}

void release(const Context& context, const NoValues&) {
  constexpr const char* kStep = "releasing the votes of 'power vote'";
  const std::string socket = find_manager(context);
  ManagerStatus status = query_manager(socket, kStep);
  std::vector<uint32_t> processes;
  for (const VoterEntry& voter : status.voters) {
    if (!voter.votes || !runs_this_program(voter.process)) continue;
    processes.push_back(voter.process);
    kill(static_cast<pid_t>(voter.process), SIGTERM);
  }
  const auto deadline = Clock::now() + kReleaseTimeout;
  // By number: a process that is ending runs nothing any more, while the manager still counts its vote.
  const auto is_one = [&](const VoterEntry& voter) {
    return voter.votes && std::find(processes.begin(), processes.end(), voter.process) != processes.end();
  };
  while (std::any_of(status.voters.begin(), status.voters.end(), is_one)) {
    if (Clock::now() > deadline) throw Failure(kStep, "a process still votes", "'power status' shows which.");
    if (!context.inbox.pause_until(Clock::now() + kInterval / 5)) return;
    status = query_manager(socket, kStep);
  }
  const std::string left = std::to_string(votes(status)) + " left";
  context.output.print({{"released", processes}, {"votes", votes(status)}},
                       "votes: " + std::to_string(processes.size()) + " released, " + left);
}

// --- power status and watch ---

void show_status(const Context& context, const NoValues&) {
  const ManagerStatus status = query_manager(find_manager(context), "reading the modem's power");
  Json voters = Json::array();
  std::string text = std::string("modem ") + state_text(status.state) + ", votes: " + std::to_string(votes(status));
  for (const VoterEntry& voter : status.voters) {
    voters.push_back({{"process", voter.process}, {"name", voter.voter}, {"votes", voter.votes}});
    text +=
        "\n  process " + std::to_string(voter.process) + ", " + voter.voter + (voter.votes ? ": votes" : ": no vote");
  }
  const Json document = {{"power", state_text(status.state)}, {"votes", votes(status)}, {"voters", std::move(voters)}};
  context.output.print(document, text);
}

// A voter without a vote, which acknowledges each step and passes it on.
struct Watcher {
  ~Watcher() {
    if (handle != nullptr) pm_client_unregister(handle);
  }

  static void on_event(void* data, pm_event event) {
    pm_client_event_acknowledge(static_cast<Watcher*>(data)->handle, event);
    Inbox::receive_power_step(event);
  }

  void* handle = nullptr;
};

void watch(const Context& context, const PowerValues& values) {
  const auto& [wanted, seconds] = values.limits;
  context.require_end(seconds, wanted);
  constexpr const char* kStep = "watching the modem's power";
  const std::string socket = find_manager(context);
  const Signals::Follower ends_by_itself(context.signals);
  Watcher watcher;
  pm_event state = EVENT_PERIPH_IS_OFFLINE;
  const int result = pm_client_register(Watcher::on_event, &watcher, values.device.c_str(), "modem_api_test watch",
                                        &state, &watcher.handle);
  if (result == PM_RET_UNSUPPORTED) {
    throw Failure(kStep, "the peripheral manager has no peripheral '" + values.device + "'");
  }
  if (result != PM_RET_SUCCESS) throw no_manager(kStep, socket);
  report(context, state);

  const auto deadline = deadline_after(seconds);
  uint32_t seen = 0;
  while (wanted == 0 || seen < wanted) {
    const auto next_look = Clock::now() + kInterval;
    if (const auto arrival = context.inbox.next(deadline ? std::min(*deadline, next_look) : next_look)) {
      report(context, static_cast<pm_event>(arrival->number), arrival->time);
      ++seen;
      continue;
    }
    if (context.inbox.is_interrupted()) return;
    if (deadline && Clock::now() >= *deadline) break;
    // It has no vote to take back; that fails where the manager is gone.
    if (pm_client_disconnect(watcher.handle) != PM_RET_SUCCESS) throw lost_manager(kStep);
  }
  if (seen >= wanted) return;
  throw Failure(kStep, "only " + std::to_string(seen) + " of " + std::to_string(wanted) + " steps came",
                "Wait longer with --for SECONDS.");
}

// --- ssr ---

// Indexed by restart type.
constexpr struct {
  const char* word;
  const char* name;
  const char* meaning;
} kTypes[] = {
    {"def", "MODEM_RESTART_LEVEL_ID_DEF", "the saved level is in force"},
    {"ssr", "MODEM_RESTART_LEVEL_ID_SSR", "a crashed modem restarts alone"},
    {"dump", "MODEM_RESTART_LEVEL_ID_DUMP", "a crashed modem is dumped"},
    {"invalid", "MODEM_RESTART_LEVEL_ID_INVALID", "no known level is in force"},
};
constexpr size_t kSettableTypes = 3;

void get_type(const Context& context, const NoValues&) {
  const int32_t type = pelmar_get_modem_ssr_type();
  const auto& row = kTypes[std::clamp<int32_t>(type, 0, std::size(kTypes) - 1)];
  context.output.print({{"restart_type", type}, {"name", row.name}},
                       std::string("restart type ") + row.word + " (" + std::to_string(type) + "): " + row.meaning);
}

void set_type(const Context& context, const std::string& word) {
  const auto* const row =
      std::find_if(kTypes, kTypes + kSettableTypes, [&](const auto& each) { return word == each.word; });
  const auto type = static_cast<int32_t>(row - kTypes);
  const bool is_written = pelmar_set_modem_ssr_type(type) == 1;
  const char* const reason =
      type == MODEM_RESTART_LEVEL_ID_DEF ? ": in force already, or no level is saved" : ": in force already";
  context.output.print({{"restart_type", type}, {"name", row->name}, {"written", is_written}},
                       std::string("restart type ") + row->word + (is_written ? ": written" : reason));
}

void show_name(const Context& context, const NoValues&) {
  char name[PROPERTY_VALUE_MAX] = {};  // the library does not terminate it
  uint32_t room = sizeof name - 1;
  pelmar_get_modem_ssr_type_name(name, &room);
  context.output.print({{"level", name}}, name);
}

constexpr int32_t kSecondsOfProperty = -1;  // those that persist.radio.ssr_wait_s has

void wait(const Context& context, const int32_t& seconds) {
  const int32_t waited = pelmar_modem_ssr_wait_s(seconds);
  context.output.print({{"waited_seconds", waited}}, "waited " + std::to_string(std::max(waited, 0)) + " s");
}

}  // namespace

void add_modem_commands(CommandLine& line) {
  for (const auto& row : kCommands) {
    const auto act = [&row](const Context& context, const Confirmation& confirmation) {
      confirmation.require(row.effect);
      check(row.call(context.session.open(MODEM_API_CLIENT_VS)), row.step);
      context.session.restart();  // the modem may lose the connection
      context.output.print({{"done", row.name}}, row.done);
    };
    auto [command, confirmation] = line.add<Confirmation>(line.root(), row.name, row.summary, act);
    confirmation.add_to(command);
    command.add_examples({"--yes", "--yes --json"});
  }

  CLI::App& modem = line.add_group("modem", "the simulated modem that this program starts where none is named");
  constexpr const char* kStopSummary =
      "end the client's own simulated modem; its storage stays, and the next command starts the modem again";
  line.add<NoValues>(modem, "stop", kStopSummary, stop_modem);

  CLI::App& power = line.add_group("power", "votes for the modem's power, at the peripheral manager");
  auto [hold, held] = line.add<PowerValues>(power, "vote", "vote for power, as long as this command runs", vote);
  held.add_to(hold);
  hold.add_duration(held.limits.seconds, "take the vote back after that many seconds");
  hold.add_examples({"", "--for 10"});
  line.add<NoValues>(power, "release", "end every 'power vote' that runs", release);
  line.add<NoValues>(power, "status", "show the power, the votes, and the voters", show_status);
  auto [follow, followed] = line.add<PowerValues>(power, "watch", "follow the steps of the power as they come", watch);
  followed.add_to(follow);
  followed.limits.add_to(follow, "steps");
  follow.add_examples({"", "--count 1 --for 60"});

  CLI::App& ssr = line.add_group("ssr", "what happens when the modem crashes: the restart type");
  line.add<NoValues>(ssr, "get", "show the restart type; the first time it also saves the level", get_type);
  auto [set, type] = line.add<std::string>(ssr, "set", "switch the restart type", set_type);
  std::vector<std::string> words;
  for (size_t i = 0; i < kSettableTypes; ++i) words.emplace_back(kTypes[i].word);
  set.add_text("type", type, "ssr: restart alone; dump; def: as it was saved", {.is_required = true, .words = words});
  set.add_examples({"ssr", "def"});
  line.add<NoValues>(ssr, "name", "show the restart level's text", show_name);
  auto [settle, seconds] = line.add<int32_t>(ssr, "wait", "wait while a restart settles", wait);
  seconds = kSecondsOfProperty;
  settle.add_number("seconds", seconds, "how long",
                    {.type = "SECONDS", .otherwise = "what persist.radio.ssr_wait_s has, else 5"}, 3600, 0);
  settle.add_examples({"0", "2"});
}

}  // namespace pelmar::cli
