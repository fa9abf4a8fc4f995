#include "sim_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <utility>

#include "unix_socket.h"

namespace pelmar::sim::test {

namespace {

constexpr int kTimeoutMs = 300'000;  // longer than all waits of a test's client process together

// Returns the text up to this byte, the end of the stream, or the timeout.
std::string read_text(int fd, int end) {
  std::string text;
  pollfd waiting{fd, POLLIN, 0};
  uint8_t byte = 0;
  while (poll(&waiting, 1, kTimeoutMs) == 1 && read(fd, &byte, 1) == 1 && byte != end) text += static_cast<char>(byte);
  return text;
}

std::vector<std::string> serve_arguments(const std::string& socket, const ScratchDirectory& directory,
                                         const std::vector<std::string>& options) {
  std::vector<std::string> arguments = {MODEM_SIM, "serve", "--socket", socket, "--storage", directory.path("storage")};
  if (transport() == "qrtr") arguments.push_back("--qrtr");
  if (transport() == "device" || transport() == "proxy") arguments.push_back("--device=" + directory.path("device"));
  arguments.insert(arguments.end(), options.begin(), options.end());
  return arguments;
}

}  // namespace

std::string transport() {
  const char* const name = getenv("PELMAR_TEST_TRANSPORT");
  return name == nullptr ? "socket" : name;
}

bool wait_until(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  for (; !condition(); std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
    if (std::chrono::steady_clock::now() > end) return false;
  }
  return true;
}

Process::Process(const std::string& program, const std::vector<std::string>& arguments, bool errors_to_output) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  int input[2] = {-1, -1};
  int output[2] = {-1, -1};
  EXPECT_EQ(pipe2(input, O_CLOEXEC), 0);
  EXPECT_EQ(pipe2(output, O_CLOEXEC), 0);
  const UniqueFd reading(input[0]);
  const UniqueFd writing(output[1]);
  input_.reset(input[1]);
  output_.reset(output[0]);
  process_ = fork();
  if (process_ == 0) {
    dup2(input[0], STDIN_FILENO);
    dup2(output[1], STDOUT_FILENO);
    if (errors_to_output) dup2(output[1], STDERR_FILENO);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
}

Process::~Process() {
  if (process_ > 0) end(SIGKILL);
}

std::string Process::line() {
  return read_text(output_.get(), '\n');
}

std::string Process::rest() {
  return read_text(output_.get(), EOF);
}

void Process::send_line(const std::string& line) {
  const std::string text = line + '\n';
  EXPECT_EQ(write(input_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

int Process::end(int signal) {
  const pid_t process = std::exchange(process_, -1);
  if (signal != 0) kill(process, signal);
  int status = 0;
  if (waitpid(process, &status, 0) != process) return -1;
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

Outcome run_program(const std::vector<std::string>& arguments) {
  Process process(arguments[0], arguments, true);
  process.finish();
  std::string output = process.rest();
  return {process.end(), std::move(output)};
}

SimProcess::SimProcess(const ScratchDirectory& directory, const std::vector<std::string>& options,
                       const std::string& socket)
    : Process(MODEM_SIM, serve_arguments(socket.empty() ? directory.path("qmux") : socket, directory, options), true),
      socket_(socket.empty() ? directory.path("qmux") : socket),
      device_(directory.path("device")),
      control_(directory.path("storage/control")) {
  std::string first = line();
  while (first.starts_with("modem_sim: ignoring ")) first = line();
  EXPECT_EQ(first, "modem_sim: ready on " + socket_);
}

SimProcess::~SimProcess() {
  if (process() > 0) {
    EXPECT_EQ(end(SIGTERM), 0) << "the modem does not end normally at SIGTERM";
  }
}

std::string SimProcess::address() const {
  if (transport() == "qrtr") return "qrtr";
  if (transport() == "device") return device_;
  return transport() == "proxy" ? "proxy:" + device_ : socket_;
}

std::string SimProcess::respond(const std::string& line) const {
  const UniqueFd fd = connect_unix(control_).fd;
  const std::string text = line + '\n';
  EXPECT_EQ(send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  return read_text(fd.get(), '\n');
}

std::string SimProcess::command(const std::string& line) const {
  const std::string response = respond(line);
  EXPECT_NE(response.find("\"ok\":true"), response.npos) << line << ": " << response;
  return response;
}

std::string SimProcess::refused_command(const std::string& line) const {
  const auto response = nlohmann::json::parse(respond(line));
  EXPECT_FALSE(response.at("ok")) << line;
  return response.value("error", "");
}

nlohmann::json SimProcess::value(const std::string& line, const std::string& place) const {
  return nlohmann::json::parse(command(line)).at(nlohmann::json::json_pointer(place));
}

}  // namespace pelmar::sim::test
