#include "own_modem.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <thread>
#include <utility>

#include "detached_process.h"
#include "environment.h"
#include "failure.h"
#include "output.h"
#include "text.h"
#include "unix_socket.h"

namespace pelmar::cli {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kStep = "starting the simulated modem";
constexpr const char* kModemProgram = "modem_sim";
constexpr const char* kModemProgramVariable = "PELMAR_MODEM_SIM";
constexpr const char* kIdleSeconds = "60";
constexpr std::chrono::milliseconds kReadyTimeout = 20s;
constexpr std::string_view kReadyLine = "modem_sim: ready on ";

std::string find_program() {
  if (std::string named = environment(kModemProgramVariable); !named.empty()) return named;
  std::error_code error;
  const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const fs::path& directory : {here, here.parent_path() / "bin"}) {
    const fs::path program = directory / kModemProgram;
    if (access(program.c_str(), X_OK) == 0) return program;
  }
  throw Failure(kStep, std::string("no program ") + kModemProgram + " is in this program's directory, nor in ../bin",
                std::string("Build it, set ") + kModemProgramVariable + " to its path, or name a modem with --modem.");
}

enum class Start { kReady, kEnded, kTooLate };

// Reads the output up to the ready line, its end, or the deadline.
Start wait_until_ready(int output) {
  const Clock::time_point deadline = Clock::now() + kReadyTimeout;
  std::string text;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd readable = {output, POLLIN, 0};
    if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) == 0) return Start::kTooLate;
    char bytes[256];
    const ssize_t count = read(output, bytes, sizeof bytes);
    if (count <= 0) return Start::kEnded;
    text.append(bytes, static_cast<size_t>(count));
    if (text.find(kReadyLine) != text.npos && text.ends_with('\n')) return Start::kReady;
  }
}

// Starts modem_sim as a process that outlives this one, and returns once it serves: empty, or why it does not.
std::string start_modem_process(const Modem& modem) {
  const std::string program = find_program();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Failure::of_system("creating a pipe");
  const UniqueFd output(ends[0]);
  UniqueFd input(ends[1]);

  // Detached from the terminal and from everything that this process has open.
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, modem.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const char* const arguments[] = {kModemProgram,         "serve",      "--socket",
                                   modem.address.c_str(), "--storage",  modem.storage.c_str(),
                                   "--exit-when-idle",    kIdleSeconds, nullptr};
  pid_t process = 0;
  const int error = spawn_detached(program.c_str(), arguments, actions, process);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return program + ": " + strerror(error);
  input.reset();

  const Start start = wait_until_ready(output.get());
  if (start == Start::kReady) return "";
  if (start == Start::kTooLate) kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
  std::ifstream file(modem.log);
  std::string logged(std::istreambuf_iterator<char>(file), {});
  while (logged.ends_with('\n')) logged.pop_back();
  if (start == Start::kTooLate) return "it was not ready in time" + (logged.empty() ? "" : ": " + logged);
  return logged.empty() ? program + " ended at once" : logged;
}

// --- the own modem ---

constexpr int kResponseTimeoutMs = 2000;

// A QMUX frame to the control service that requests the list of services. It changes nothing in the modem.
constexpr uint8_t kGetVersionInfo[] = {0x01, 0x0B, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x21, 0x00, 0x00, 0x00};

// A modem that refuses a connection closes it at once.
constexpr int kRefusalTimeoutMs = 100;

// Whether the modem responds: requests its list of services, and waits for the first byte of the response. The
// connection stays open then.
bool reach(Modem& modem) {
  UniqueFd connection = connect_unix(modem.address).fd;
  const int fd = connection.get();
  if (fd < 0 || send(fd, kGetVersionInfo, sizeof kGetVersionInfo, MSG_NOSIGNAL) != sizeof kGetVersionInfo) return false;
  pollfd readable = {fd, POLLIN, 0};
  uint8_t response[512];
  if (poll(&readable, 1, kResponseTimeoutMs) != 1 || recv(fd, response, sizeof response, 0) <= 0) return false;
  modem.guard = std::move(connection);
  return true;
}

constexpr auto kLockTimeout = 45s;
constexpr int kAttempts = 5;  // the modem of an earlier run may be ending and still hold the storage
constexpr auto kPauseBetweenAttempts = 100ms;

// FNV-1a: the same for the same storage in every build.
std::string digest(std::string_view text) {
  uint32_t value = 2166136261U;
  for (const char character : text) value = (value ^ static_cast<uint8_t>(character)) * 16777619U;
  char digits[9];
  snprintf(digits, sizeof digits, "%08x", value);
  return digits;
}

// For this user alone; the directories above it as usual.
void make_private_directory(const std::string& path) {
  std::error_code error;
  fs::create_directories(fs::path(path).parent_path(), error);
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) throw Failure::of_system("creating the directory " + path);
}

// Returns the paths of the program's own modem, running or not, and creates the directories.
Modem describe_own_modem() {
  const std::string state = user_state_directory();
  if (state.empty()) {
    throw Failure(kStep, "this user has no home directory to keep its storage in", "Set HOME or XDG_STATE_HOME.");
  }
  const std::string below = state + "/pelmar";
  const std::string storage = below + "/modem";
  make_private_directory(below);
  make_private_directory(storage);
  std::string socket = storage + "/socket";
  if (const std::string runtime = environment_path("XDG_RUNTIME_DIR"); !runtime.empty()) {
    make_private_directory(runtime + "/pelmar");
    socket = runtime + "/pelmar/modem-" + digest(storage) + ".sock";
  }
  return {socket, storage, storage + ".log", {}};
}

UniqueFd take_lock(const std::string& path) {
  UniqueFd lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lock) throw Failure::of_system("opening " + path);
  const auto deadline = Clock::now() + kLockTimeout;
  while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (Clock::now() > deadline) {
      throw Failure(kStep, "another modem_api_test is starting it and does not end",
                    "End that process, which holds " + path + ".");
    }
    std::this_thread::sleep_for(10ms);
  }
  return lock;
}

Modem reach_own_modem() {
  Modem modem = describe_own_modem();
  std::string problem;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (reach(modem)) return modem;
    const UniqueFd lock = take_lock(modem.storage + ".lock");
    if (reach(modem)) return modem;
    problem = start_modem_process(modem);
    if (!problem.empty()) std::this_thread::sleep_for(kPauseBetweenAttempts);
  }
  if (problem.empty()) problem = "it started, but does not respond on " + modem.address;
  throw Failure(kStep, problem, "Its log is " + modem.log + "; --modem names another modem.");
}

}  // namespace

Modem choose_modem(const std::string& named) {
  Modem modem{named.empty() ? environment(kModemVariable) : named, "", "", {}};
  if (modem.address.empty()) modem = reach_own_modem();
  setenv(kModemVariable, modem.address.c_str(), 1);
  return modem;
}

bool stop_own_modem() {
  const std::string step = "stopping the simulated modem";
  const UnixConnection connection = connect_unix(describe_own_modem().address);
  if (!connection.fd) return false;
  const pid_t process = peer_of(connection.fd.get()).pid;
  if (process <= 0 || kill(process, SIGTERM) != 0) throw Failure::of_system(step);
  pollfd end = {connection.fd.get(), 0, 0};
  if (poll(&end, 1, static_cast<int>(kReadyTimeout.count())) == 1) return true;
  throw Failure(step, "process " + std::to_string(process) + " does not end");
}

std::string find_obstacle(const std::string& name) {
  const UnixConnection connection = connect_unix(name);
  if (connection.error == ENOENT || connection.error == ECONNREFUSED) return "";
  if (connection.error != 0) return connection.problem;
  const std::string refusal = describe_refusal(connection.fd.get(), name);
  pollfd readable = {connection.fd.get(), POLLIN, 0};
  if (refusal.empty() || poll(&readable, 1, kRefusalTimeoutMs) != 1) return "";
  return refusal + ", or start the simulated modem with --any-user";
}

}  // namespace pelmar::cli
