#include "modem_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "clocks.h"
#include "environment.h"
#include "failure.h"
#include "unique_fd.h"

namespace pelmar::cli {

namespace {

namespace fs = std::filesystem;

constexpr const char* kProgram = "modem_sim";
constexpr const char* kProgramVariable = "PELMAR_MODEM_SIM";
constexpr const char* kIdleSeconds = "60";
constexpr std::chrono::seconds kReadyPatience{20};
constexpr std::string_view kReadyLine = "modem_sim: ready on ";

std::string find_program() {
  if (std::string named = environment(kProgramVariable); !named.empty()) return named;
  std::error_code error;
  const fs::path here = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const fs::path& directory : {here, here.parent_path() / "bin"}) {
    const fs::path program = directory / kProgram;
    if (access(program.c_str(), X_OK) == 0) return program;
  }
  throw Failure(
      "starting the simulated modem", std::string("no program ") + kProgram + " stands beside this one",
      std::string("Build it, set ") + kProgramVariable + " to its path, or name a modem with --modem SOCKET.");
}

// What a process starts with: detached from the terminal and from everything that this process has open.
class SpawnSettings {
 public:
  SpawnSettings(int output, const std::string& log) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes_, &none);
    posix_spawnattr_setsigdefault(&attributes_, &all);
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  const posix_spawn_file_actions_t* actions() const { return &actions_; }
  const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// Whether the ready line came before the output's end and the deadline.
enum class Start { kReady, kEnded, kTooLate };

Start wait_until_ready(int output) {
  const Clock::time_point deadline = Clock::now() + kReadyPatience;
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

// The modem's last words.
std::string read_log(const std::string& path) {
  std::ifstream file(path);
  std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  while (text.ends_with('\n')) text.pop_back();
  return text;
}

}  // namespace

std::string start_modem_process(const std::string& socket, const std::string& storage, const std::string& log) {
  const std::string program = find_program();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw Failure::of_system("creating a pipe");
  const UniqueFd output(ends[0]);
  UniqueFd input(ends[1]);

  const SpawnSettings settings(input.get(), log);
  const char* const arguments[] = {kProgram,           "serve",      "--socket",
                                   socket.c_str(),     "--storage",  storage.c_str(),
                                   "--exit-when-idle", kIdleSeconds, nullptr};
  pid_t process = 0;
  const int error = posix_spawn(&process, program.c_str(), settings.actions(), settings.attributes(),
                                const_cast<char* const*>(arguments), environ);
  if (error != 0) return program + ": " + strerror(error);
  input.reset();

  const Start start = wait_until_ready(output.get());
  if (start == Start::kReady) return "";
  if (start == Start::kTooLate) kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
  const std::string words = read_log(log);
  if (start == Start::kTooLate) return "it was not ready in time" + (words.empty() ? "" : ": " + words);
  return words.empty() ? program + " ended at once" : words;
}

}  // namespace pelmar::cli
