#include "output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include "json.h"
#include "printable_text.h"
#include "unique_fd.h"

namespace pelmar::cli {

namespace {

constexpr const char* kProgram = "modem_api_test";

// The control characters that texts of this program are laid out with.
constexpr std::string_view kLayout = "\n\t";

// ASCII alone, with everything else escaped: a value may hold control characters, which a terminal would act on.
std::string to_line(const Json& document) {
  return document.dump(-1, ' ', true, Json::error_handler_t::replace);
}

// A descriptor that the caller closed must not become a socket's, which what is printed would go into. Standard output
// becomes one that cannot be written to, so that the loss is reported.
void fill_standard_descriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    if (open(fd == STDOUT_FILENO ? "/dev/full" : "/dev/null", O_RDWR) < 0)
      throw Failure::of_system("opening /dev/null");
  }
}

UniqueFd take_standard_output() {
  fill_standard_descriptors();
  fflush(stdout);
  UniqueFd own(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!own) throw Failure::of_system("opening the standard output");
  dup2(STDERR_FILENO, STDOUT_FILENO);
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  return own;
}

constexpr int kReaderPatienceMs = 100;

std::atomic<bool> waits_for_readers{true};

// False where it cannot; errno has the reason. It never waits for a reader inside write(), which nothing could end.
bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    pollfd writable = {fd, POLLOUT, 0};
    if (poll(&writable, 1, kReaderPatienceMs) != 1) {
      if (waits_for_readers) continue;
      errno = ETIMEDOUT;
      return false;
    }
    const ssize_t count = write(fd, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
    if (count < 0 && errno != EINTR && errno != EAGAIN) return false;
    text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  }
  return true;
}

}  // namespace

Output::Output(bool json) : fd_(take_standard_output()), is_json_(json) {}

void Output::print(const Json& document, std::string_view text) {
  std::string printed = is_json_ ? to_line(document) : printable_text(text, kLayout);
  if (!printed.ends_with('\n')) printed += '\n';
  write_text(printed);
}

void Output::write(std::span<const uint8_t> bytes) {
  write_text({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

void Output::write_text(std::string_view text) {
  if (write_all(fd_.get(), text)) return;
  if (errno == EPIPE) throw Failure::of_closed_output();
  throw Failure::of_system("writing the output");
}

void Output::report(const Failure& failure) {
  if (failure.is_silent()) return;
  remark(failure.what());
  if (is_json_) write_all(fd_.get(), to_line(failure.json()) + "\n");
}

void stop_waiting_for_readers() {
  waits_for_readers = false;
}

void remark(const std::string& text) {
  write_all(STDERR_FILENO, std::string(kProgram) + ": " + printable_text(text, kLayout) + "\n");
}

}  // namespace pelmar::cli
