#include "console/control_client.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "console/commands.h"
#include "io/local_socket.h"
#include "printable_text.h"

namespace pelmar::sim {

namespace {

constexpr size_t kUsageColumn = 44;

// Far beyond what any command takes.
constexpr timeval kPatience = {30, 0};

std::string exchange_line(int fd, const std::string& socket, const std::string& line) {
  const auto fail = [&](const std::string& otherwise) {
    if (errno == EAGAIN) {
      throw std::runtime_error("the modem at '" + socket + "' does not respond: continue or restart its process");
    }
    const std::string refusal = describe_refusal(fd, socket);
    throw std::runtime_error(refusal.empty() ? otherwise : "cannot connect to '" + socket + "': " + refusal);
  };
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  errno = 0;
  if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
    fail("the modem ended before it took the command: start it again");
  }
  std::string answer;
  char bytes[4096];
  for (ssize_t count; !answer.ends_with('\n') && (count = recv(fd, bytes, sizeof bytes, 0)) > 0;) {
    answer.append(bytes, static_cast<size_t>(count));
  }
  if (!answer.ends_with('\n')) fail("the modem ended before it answered: start it again");
  return answer;
}

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
  Json answer = Json::parse(exchange_line(fd.get(), options.socket, options.command + '\n'));
  const bool ok = answer.value("ok", false);
  if (options.json) {
    printf("%s\n", answer.dump(-1, ' ', true).c_str());
  } else if (!ok) {
    fprintf(stderr, "modem_sim: %s\n", printable_text(answer.value("error", "refused")).c_str());
  } else {
    answer.erase("ok");
    if (answer.empty()) printf("done\n");
    print(answer, 0);
  }
  if (ok) return kExitSuccess;
  return answer.value("usage", false) ? kExitUsage : kExitFailure;
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
