#include "qmi_proxy.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "detached_process.h"
#include "handle.h"
#include "qmux_link.h"
#include "unix_socket.h"

namespace pelmar::platform {
namespace {

constexpr const char* kPrograms[] = {"/usr/libexec/qmi-proxy", "/usr/local/libexec/qmi-proxy"};

constexpr Deadline::Milliseconds kStartTimeout{2000};
constexpr Deadline::Milliseconds kPause{10};

// The least time between two attempts of a process. A notifier looks for the modem several times a second.
constexpr Deadline::Clock::duration kRetryPause = std::chrono::seconds(5);

bool may_try_now() {
  using Time = Deadline::Clock::duration;
  static std::atomic<Time> last{Time::min()};
  const Time now = Deadline::Clock::now().time_since_epoch();
  Time before = last.load();
  const bool is_due = before == Time::min() || now - before >= kRetryPause;
  return is_due && last.compare_exchange_strong(before, now);
}

// Starts the program in the background by a shell that ends at once, so that the program is no child of this process,
// which may wait for its own children. Returns 0, or errno's value.
int start_detached(const char* program) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const char* const arguments[] = {"sh", "-c", "\"$0\" </dev/null >/dev/null 2>&1 &", program, nullptr};
  pid_t shell = 0;
  const int error = spawn_detached("/bin/sh", arguments, actions, shell);
  posix_spawn_file_actions_destroy(&actions);
  while (error == 0 && ::waitpid(shell, nullptr, 0) < 0 && errno == EINTR) {
  }
  return error;
}

}  // namespace

Problem start_qmi_proxy(const std::string& device, const Deadline& deadline) {
  if (!is_character_device(device)) return {"no qmi-proxy runs, and there is no character device " + device, true};
  if (!may_try_now()) return {"no qmi-proxy runs", true};
  const char* program = nullptr;
  for (const char* const path : kPrograms) {
    if (program == nullptr && ::access(path, X_OK) == 0) program = path;
  }
  if (program == nullptr) {
    return {std::string("no qmi-proxy runs, and there is no ") + kPrograms[0] +
            ": install the package libqmi-proxy, or name the device itself, " + device};
  }
  if (const int error = start_detached(program); error != 0) {
    return {std::string("cannot start ") + program + ": " + std::strerror(error)};
  }
  const Deadline end = earlier(deadline, Deadline::after(kStartTimeout));
  while (connect_unix(kProxySocket).error != 0) {
    if (end.has_passed()) return {std::string(program) + " was started, but accepts no connection", true};
    std::this_thread::sleep_for(kPause);
  }
  return {};
}

}  // namespace pelmar::platform
