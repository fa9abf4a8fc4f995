#include "client_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace pelmar::system_test {
ClientProcess::ClientProcess(const std::string& name, const std::vector<std::string>& role_and_arguments) {
  std::vector<std::string> arguments = {"/system/" + name, "--role"};
  arguments.insert(arguments.end(), role_and_arguments.begin(), role_and_arguments.end());
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);

  int input[2];
  int output[2];
  if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) return;
  process_ = fork();
  if (process_ == 0) {
    dup2(input[0], STDIN_FILENO);
    dup2(output[1], STDOUT_FILENO);
    execv("/proc/self/exe", argv.data());
    _exit(127);
  }
  close(input[0]);
  close(output[1]);
  input_ = input[1];
  output_ = output[0];
}

ClientProcess::~ClientProcess() {
  if (process_ > 0) end(SIGKILL);
  finish();
  close(output_);
}

std::string ClientProcess::line(int patience_ms) {
  pollfd waiting{output_, POLLIN, 0};
  char bytes[4096];
  while (buffered_.find('\n') == std::string::npos) {
    if (poll(&waiting, 1, patience_ms) != 1) return "";
    const ssize_t count = read(output_, bytes, sizeof(bytes));
    if (count <= 0) return "";
    buffered_.append(bytes, static_cast<size_t>(count));
  }
  const size_t end = buffered_.find('\n');
  std::string first = buffered_.substr(0, end);
  buffered_.erase(0, end + 1);
  return first;
}

std::string ClientProcess::rest() {
  std::string text;
  for (std::string next = line(); !next.empty(); next = line()) text += next + '\n';
  return text;
}

void ClientProcess::tell(const std::string& line) {
  const std::string text = line + '\n';
  EXPECT_EQ(write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void ClientProcess::finish() {
  if (input_ >= 0) close(input_);
  input_ = -1;
}

int ClientProcess::end(int signal) {
  if (signal != 0) kill(process_, signal);
  int status = 0;
  if (waitpid(process_, &status, 0) != process_) return -1;
  process_ = -1;
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace pelmar::system_test
