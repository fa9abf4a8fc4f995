#include "console/console.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>

#include "console/commands.h"
#include "io/text.h"
#include "printable_text.h"
#include "simulation.h"
#include "unix_socket.h"

namespace pelmar::sim {

namespace {

constexpr size_t kMaxResponseBytes = size_t{4} << 20;
constexpr Stream::Bounds kBounds{size_t{64} << 10, kMaxResponseBytes};

// Limit for a command and its whole response; much longer than any command takes.
constexpr std::chrono::seconds kTimeout{30};

// --- the modem's end ---

// All but ASCII is escaped: a response may quote control characters, of which a line end would end it and others act on
// a terminal. Bytes that are no text are replaced.
std::string as_line(const Json& response) {
  return response.dump(-1, ' ', true, Json::error_handler_t::replace) + '\n';
}

}  // namespace

class Console::Session final : private Stream::Reader {
 public:
  Session(Console& console, UniqueFd fd)
      : console_(console),
        stream_(console.simulation_.loop, console.simulation_.output, std::move(fd), *this, kBounds) {}

 private:
  size_t on_bytes(std::span<const uint8_t> bytes) override {
    const std::string_view text = text_of(bytes);
    size_t used = 0;
    for (size_t end = text.find('\n'); end != text.npos && stream_.is_open(); end = text.find('\n', used)) {
      const std::string response = as_line(run_command(console_.simulation_, text.substr(used, end - used)));
      used = end + 1;
      stream_.send(bytes_of(response));
    }
    return used;
  }

  void on_closed(std::string_view) override {
    console_.simulation_.loop.post([this] { console_.sessions_.erase(this); });
  }

  Console& console_;
  Stream stream_;
};

Console::~Console() = default;

Console::Console(const std::string& socket, Simulation& simulation)
    : simulation_(simulation), listener_(simulation.loop, socket, [this](UniqueFd fd) {
        auto session = std::make_unique<Session>(*this, std::move(fd));
        Session* const key = session.get();
        sessions_.emplace(key, std::move(session));
      }) {}

// --- the user's end ---

namespace {

// Sends one line to the modem and receives one, before a deadline.
std::string exchange_lines(int fd, const std::string& socket, std::string_view line) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + kTimeout;
  const auto wait_for = [&](short event) {
    pollfd waiting{fd, event, 0};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left > 0 && poll(&waiting, 1, static_cast<int>(left)) != 0) return;
    throw std::runtime_error("the modem at '" + socket + "' does not respond: continue or restart its process");
  };
  // A failed call is made again, unless the connection has ended.
  const auto check = [&](ssize_t count, const char* problem) {
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return size_t{0};
    if (count > 0) return static_cast<size_t>(count);
    const std::string refusal = describe_refusal(fd, socket);
    throw std::runtime_error(refusal.empty() ? problem : "cannot connect to '" + socket + "': " + refusal);
  };
  while (!line.empty()) {
    wait_for(POLLOUT);
    const ssize_t count = send(fd, line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    line.remove_prefix(check(count, "the modem ended before it took the command: start it again"));
  }
  std::string response;
  while (!response.ends_with('\n')) {
    wait_for(POLLIN);
    char bytes[4096];
    const ssize_t count = recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
    response.append(bytes, check(count, "the modem ended before it responded: start it again"));
    if (response.size() > kMaxResponseBytes) {
      throw std::runtime_error("what serves '" + socket + "' is no modem's control socket: name another one");
    }
  }
  return response;
}

// Escapes control characters, because the bytes come from another process.
std::string printable(const Json& value) {
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
  printf(" %s\n", value.empty() ? "none" : printable(value).c_str());
}

// Prints an object as lines "name: value", and each flat element of an array as a line.
void print(const Json& value, int depth) {
  if (value.is_object()) {
    for (const auto& [name, field] : value.items()) print_field(name, field, depth);
    return;
  }
  for (const Json& element : value) {
    printf("%*s", depth * 2, "");
    if (!element.is_object()) {
      printf("%s\n", printable(element).c_str());
      continue;
    }
    const char* separator = "- ";
    for (const auto& [name, field] : element.items()) {
      printf("%s%s %s", separator, printable_text(name).c_str(), printable(field).c_str());
      separator = ", ";
    }
    printf("\n");
  }
}

}  // namespace

ExitStatus send_control_command(const std::string& socket, const std::string& command, bool as_json) {
  const UniqueFd fd = connect_local(socket);
  Json response = Json::parse(exchange_lines(fd.get(), socket, command + '\n'));
  const bool ok = response.value("ok", false);
  if (as_json) {
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

}  // namespace pelmar::sim
