#include "sim_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "io/local_socket.h"

extern char** environ;

namespace pelmar::sim::test {

namespace {

constexpr int kPatienceMs = 60'000;

// Starts a program with standard output and error in a pipe, whose reading end is stored.
pid_t start(const std::vector<std::string>& arguments, UniqueFd& output) {
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  output.reset(ends[0]);
  const UniqueFd writing(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
  pid_t process = -1;
  EXPECT_EQ(posix_spawn(&process, argv[0], &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  return process;
}

int wait_for_end(pid_t process) {
  int status = 0;
  if (waitpid(process, &status, 0) != process) return -1;
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

// Reads until the text has a line feed or, for `all`, ends.
std::string read_text(int fd, bool all) {
  std::string text;
  char bytes[4096];
  pollfd waiting{fd, POLLIN, 0};
  while ((all || text.find('\n') == text.npos) && poll(&waiting, 1, kPatienceMs) == 1) {
    const ssize_t count = read(fd, bytes, sizeof bytes);
    if (count <= 0) break;
    text.append(bytes, static_cast<size_t>(count));
  }
  return text;
}

nlohmann::json send_line(const std::string& control, const std::string& line) {
  const UniqueFd fd = connect_local(control);
  const std::string text = line + '\n';
  EXPECT_EQ(send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  return nlohmann::json::parse(read_text(fd.get(), false));
}

}  // namespace

ScratchDirectory::ScratchDirectory() {
  char pattern[] = "/tmp/modem_sim_test.XXXXXX";
  path_ = mkdtemp(pattern);
}

ScratchDirectory::~ScratchDirectory() {
  std::filesystem::remove_all(path_);
}

bool comes_true(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

Outcome run_program(const std::vector<std::string>& arguments) {
  UniqueFd output;
  const pid_t process = start(arguments, output);
  std::string text = read_text(output.get(), true);
  return {wait_for_end(process), std::move(text)};
}

SimProcess::SimProcess(const ScratchDirectory& directory, std::vector<std::string> options, const std::string& socket)
    : socket_(socket.empty() ? directory.path("qmux") : socket), control_(directory.path("storage/control")) {
  std::vector<std::string> arguments = {MODEM_SIM, "serve",     "--socket",
                                        socket_,   "--storage", directory.path("storage")};
  arguments.insert(arguments.end(), options.begin(), options.end());
  UniqueFd output;
  process_ = start(arguments, output);
  EXPECT_EQ(read_text(output.get(), false), "modem_sim: ready on " + socket_ + "\n");
}

SimProcess::~SimProcess() {
  if (process_ <= 0) return;
  EXPECT_EQ(end(SIGTERM), 0) << "a modem that is told to end must end well";
}

int SimProcess::end(int signal) {
  if (signal != 0) kill(process_, signal);
  return wait_for_end(std::exchange(process_, -1));
}

nlohmann::json SimProcess::operator_command(const std::string& line) const {
  auto answer = send_line(control_, line);
  EXPECT_TRUE(answer.at("ok")) << line << ": " << answer;
  return answer;
}

std::string SimProcess::refused_command(const std::string& line) const {
  const auto answer = send_line(control_, line);
  EXPECT_FALSE(answer.at("ok")) << line;
  return answer.value("error", "");
}

nlohmann::json SimProcess::try_command(const std::string& line) const {
  return send_line(control_, line);
}

}  // namespace pelmar::sim::test
