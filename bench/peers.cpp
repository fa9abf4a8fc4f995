#include "peers.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace pelmar::bench {
namespace {

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

}  // namespace

Child::Started Child::start(const std::function<void(const LocalStream& stream)>& run) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) fail("socketpair");
  LocalStream own(ends[0]);
  const LocalStream other(ends[1]);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent) run(other);
    _exit(0);
  }
  return {child, std::move(own)};
}

Child::Child(const std::function<void(const LocalStream& stream)>& run) : Child(start(run)) {}

Child::~Child() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

SimulatedModem::Directory::Directory() {
  char name[] = "/tmp/pelmar-bench-XXXXXX";
  if (mkdtemp(name) == nullptr) fail("mkdtemp");
  path = name;
}

SimulatedModem::Directory::~Directory() {
  std::filesystem::remove_all(path);
}

SimulatedModem::SimulatedModem(Extra extra)
    : process_([this, extra](const LocalStream& output) { run(output, extra); }) {
  if (process_.stream().receive_line().find("ready") != std::string::npos) return;
  std::fprintf(stderr, "modem_sim did not start\n");
  std::exit(1);
}

void SimulatedModem::run(const LocalStream& output, Extra extra) const {
  dup2(output.descriptor(), STDOUT_FILENO);
  const std::string clients = extra == Extra::kDevice ? "--device=" + device() : "--qrtr";
  execl(PELMAR_MODEM_SIM, "modem_sim", "serve", "--socket", socket().c_str(), "--storage", directory_.path.c_str(),
        "--control", control_socket().c_str(), extra == Extra::kNone ? nullptr : clients.c_str(), nullptr);
  std::perror(PELMAR_MODEM_SIM);
}

void SimulatedModem::command(const std::string& text) const {
  const LocalStream stream = LocalStream::connect(control_socket());
  const std::string line = text + '\n';
  stream.send_all(line.data(), line.size());
  const std::string response = stream.receive_line();
  if (response.find("\"ok\":true") != std::string::npos) return;
  std::fprintf(stderr, "modem_sim refused '%s': %s\n", text.c_str(), response.c_str());
  std::exit(1);
}

}  // namespace pelmar::bench
