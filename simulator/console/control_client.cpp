#include "console/control_client.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string_view>

#include "console/commands.h"
#include "io/local_socket.h"
#include "printable_text.h"

namespace pelmar::sim {

namespace {

constexpr size_t kUsageColumn = 44;

// For the command and its whole response: far beyond what any takes.
constexpr std::chrono::seconds kPatience{30};

// A modem keeps no more for an operator.
constexpr size_t kMaxResponseBytes = size_t{4} << 20;

// One line to the modem and one back, before a deadline.
class LineExchange {
 public:
  LineExchange(int fd, const std::string& socket) : fd_(fd), socket_(socket) {}

  void send(std::string_view line) {
    while (!line.empty()) {
      wait_for(POLLOUT);
      const ssize_t count = ::send(fd_, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count < 0 && !is_temporary(errno)) fail("the modem ended before it took the command: start it again");
      if (count > 0) line.remove_prefix(static_cast<size_t>(count));
    }
  }

  std::string receive() {
    std::string response;
    while (!response.ends_with('\n')) {
      wait_for(POLLIN);
      char bytes[4096];
      const ssize_t count = recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT);
      if (count < 0 && is_temporary(errno)) continue;
      if (count <= 0) fail("the modem ended before it responded: start it again");
      response.append(bytes, static_cast<size_t>(count));
      if (response.size() > kMaxResponseBytes) {
        throw std::runtime_error("what serves '" + socket_ + "' is no modem's operator socket: name another one");
      }
    }
    return response;
  }

 private:
  using Clock = std::chrono::steady_clock;

  static bool is_temporary(int error) { return error == EAGAIN || error == EINTR; }

  void wait_for(short event) const {
    pollfd socket{fd_, event, 0};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
    if (left > 0 && poll(&socket, 1, static_cast<int>(left)) != 0) return;
    throw std::runtime_error("the modem at '" + socket_ + "' does not respond: continue or restart its process");
  }

  [[noreturn]] void fail(const std::string& otherwise) const {
    const std::string refusal = describe_refusal(fd_, socket_);
    throw std::runtime_error(refusal.empty() ? otherwise : "cannot connect to '" + socket_ + "': " + refusal);
  }

  const int fd_;
  const std::string& socket_;
  const Clock::time_point deadline_ = Clock::now() + kPatience;
};

// The modem is a peer: none of its bytes reach the terminal as control characters.
std::string text_of(const Json& value) {
  if (value.is_string()) return printable_text(value.get_ref<const std::string&>());
  return value.dump(-1, ' ', true);
}

void print(const Json& value, int depth);

void print_field(const std::string& name, const Json& value, int depth) {
  printf("%*s%s:", depth * 2, "", printable_text(name).c_str());
  if (value.is_structured() && !value.empty()) {
    printf("\n");
    return print(value, depth + 1);
  }
  printf(" %s\n", value.empty() ? "none" : text_of(value).c_str());
}

// Objects as lines "name: value"; the elements of an array one a line where they are flat.
void print(const Json& value, int depth) {
  if (value.is_object()) {
    for (const auto& [name, field] : value.items()) print_field(name, field, depth);
    return;
  }
  for (const Json& element : value) {
    printf("%*s", depth * 2, "");
    if (!element.is_object()) {
      printf("%s\n", text_of(element).c_str());
      continue;
    }
    const char* separator = "- ";
    for (const auto& [name, field] : element.items()) {
      printf("%s%s %s", separator, printable_text(name).c_str(), text_of(field).c_str());
      separator = ", ";
    }
    printf("\n");
  }
}

}  // namespace

int send_control_command(const ControlClientOptions& options) {
  const UniqueFd fd = connect_local(options.socket);
  LineExchange exchange(fd.get(), options.socket);
  exchange.send(options.command + '\n');
  Json response = Json::parse(exchange.receive());
  const bool ok = response.value("ok", false);
  if (options.json) {
    printf("%s\n", response.dump(-1, ' ', true).c_str());
  } else if (!ok) {
    fprintf(stderr, "modem_sim: %s\n", printable_text(response.value("error", "refused")).c_str());
  } else {
    response.erase("ok");
    if (response.empty()) printf("done\n");
    print(response, 0);
  }
  if (ok) return kExitSuccess;
  return response.value("usage", false) ? kExitUsage : kExitFailure;
}

std::string describe_commands() {
  std::string text = "Commands:\n";
  for (const CommandGroup& group : command_groups()) {
    text.append("\n").append(group.title).append(":\n");
    for (const Command& command : group.commands) {
      std::string usage = "  " + usage_of(command) + ' ';
      if (usage.size() < kUsageColumn) {
        usage.resize(kUsageColumn, ' ');
      } else {
        usage.append("\n").append(kUsageColumn, ' ');
      }
      text.append(usage).append(command.summary).append("\n");
    }
  }
  return text;
}

}  // namespace pelmar::sim
