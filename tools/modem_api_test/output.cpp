#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

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
// becomes one that cannot be written to, so that the loss is told.
void fill_standard_descriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    if (open(fd == STDOUT_FILENO ? "/dev/full" : "/dev/null", O_RDWR) < 0)
      throw Failure::of_system("opening /dev/null");
  }
}

FILE* take_standard_output() {
  fill_standard_descriptors();
  fflush(stdout);
  UniqueFd own(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  FILE* const stream = fdopen(own.get(), "w");
  if (stream == nullptr) throw Failure::of_system("opening the standard output");
  own.release();
  dup2(STDERR_FILENO, STDOUT_FILENO);
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  return stream;
}

}  // namespace

Output::Output(bool json) : stream_(take_standard_output()), is_json_(json) {}

Output::~Output() {
  fclose(stream_);
}

void Output::print(const Json& document, std::string_view text) {
  std::string printed = is_json_ ? to_line(document) : printable_text(text, kLayout);
  if (!printed.ends_with('\n')) printed += '\n';
  flush(fwrite(printed.data(), 1, printed.size(), stream_) == printed.size());
}

void Output::write(std::span<const uint8_t> bytes) {
  flush(fwrite(bytes.data(), 1, bytes.size(), stream_) == bytes.size());
}

void Output::flush(bool is_written) {
  if (fflush(stream_) == 0 && is_written) return;
  if (errno == EPIPE) throw Failure::of_closed_output();
  throw Failure::of_system("writing the output");
}

void Output::report(const Failure& failure) {
  if (failure.is_silent()) return;
  remark(failure.what());
  if (!is_json_) return;
  fprintf(stream_, "%s\n", to_line(failure.json()).c_str());
  fflush(stream_);
}

void remark(const std::string& text) {
  fflush(stdout);
  fprintf(stderr, "%s: %s\n", kProgram, printable_text(text, kLayout).c_str());
}

}  // namespace pelmar::cli
