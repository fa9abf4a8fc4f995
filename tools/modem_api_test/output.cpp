#include "output.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <utility>

#include "printable_text.h"

namespace pelmar::cli {

namespace {

// The control characters that texts of this program are laid out with.
constexpr std::string_view kLayout = "\n\t";

// ASCII alone, with everything else escaped: a value may hold control characters, which a terminal would act on.
std::string to_line(const Json& document) {
  return document.dump(-1, ' ', true, Json::error_handler_t::replace);
}

// Opens the standard descriptors that the caller has closed; otherwise a socket would get the number and the output.
// Writing to standard output fails then, so that the loss is reported.
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

constexpr int kReaderTimeoutMs = 100;

std::atomic<bool> waits_for_readers{true};
bool has_standard_input = true;

// Returns false and sets errno on failure. Polls first, because a write() that blocks could not be ended.
bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    pollfd writable = {fd, POLLOUT, 0};
    if (poll(&writable, 1, kReaderTimeoutMs) != 1) {
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
Output::~Output() = default;

void Output::set_command(const std::string& command) {
  const std::lock_guard lock(mutex_);
  if (!command.empty()) command_ = command;
}

void Output::begin_line(size_t line) {
  const std::lock_guard lock(mutex_);
  is_json_ = true;
  line_ = line;
  documents_.clear();
}

void Output::end_line(const std::optional<Failure>& failure) {
  Json whole = failure ? failure->json() : Json{{"type", "batch"}};
  if (!failure || !documents_.empty()) whole["documents"] = documents_;
  if (!failure && documents_.size() == 1) whole = documents_[0];
  write(to_line(complete(whole, line_)) + "\n");
}

Json Output::complete(const Json& document, size_t line) const {
  Json whole = {{"type", command_}};
  if (line > 0) whole["line"] = line;
  if (document.contains("type") && document["type"] != command_) whole["command"] = command_;
  whole.update(document);
  return whole;
}

int Output::give_away() {
  UniqueFd error(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!error) throw Failure::of_system("opening the standard error");
  const int given = fd_.release();
  fd_ = std::move(error);
  return given;
}

void Output::print(const Json& document, std::string_view text) {
  if (is_batch()) return documents_.push_back(complete(document));
  std::string printed = is_json_ ? to_line(complete(document)) : printable_text(text, kLayout);
  if (!printed.ends_with('\n')) printed += '\n';
  write(printed);
}

void Output::write(std::string_view bytes) {
  if (write_all(fd_.get(), bytes)) return;
  if (errno == EPIPE) throw Failure::of_silence();
  throw Failure::of_system("writing the output");
}

void Output::report(const Failure& failure) {
  if (failure.is_silent()) return;
  remark(failure.what());
  const std::lock_guard lock(mutex_);
  if (is_json_) write_all(fd_.get(), to_line(complete(failure.json())) + "\n");
}

void stop_waiting_for_readers() {
  waits_for_readers = false;
}

void remark(const std::string& text) {
  write_all(STDERR_FILENO, "modem_api_test: " + printable_text(text, kLayout) + "\n");
}

// --- files ---

// An unconnected socket can be read neither by its descriptor nor by its name /dev/stdin.
void close_standard_input() {
  const UniqueFd unreadable(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  dup2(unreadable.get(), STDIN_FILENO);
  has_standard_input = false;
}

std::string read_file(const char* path, const std::string& step, size_t most) {
  if (path == nullptr && !has_standard_input) {
    throw Failure::of_usage("standard input has the commands of the batch", "Name a file.");
  }
  // Standard input stays open.
  const File file(path == nullptr ? fdopen(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3), "rb") : fopen(path, "rbe"),
                  &fclose);
  if (file == nullptr) throw Failure::of_system(step);
  std::string content;
  char bytes[65536];
  while (const size_t count = fread(bytes, 1, sizeof bytes, file.get())) {
    content.append(bytes, count);
    if (content.size() > most) throw Failure(step, "it is longer than " + count_of(most, "byte"), "Give less data.");
  }
  if (ferror(file.get()) != 0) throw Failure::of_system(step);
  return content;
}

void write_file(const std::string& path, std::span<const uint8_t> bytes) {
  File file(fopen(path.c_str(), "wbe"), &fclose);
  const bool is_written = file != nullptr && fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
  if (!is_written || fclose(file.release()) != 0) throw Failure::of_system("writing the file '" + path + "'");
}

RecordingFile::RecordingFile(Output& output, std::string path, Earlier earlier)
    : output_(output), path_(std::move(path)) {
  if (path_ == "-") return;
  fd_.reset(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  is_unused_ = static_cast<bool>(fd_);
  if (!fd_ && errno == EEXIST) {
    fd_.reset(open(path_.c_str(), O_WRONLY | O_CLOEXEC | (earlier == Earlier::kAppend ? O_APPEND : 0)));
    struct stat status {};
    const bool is_regular = fd_ && fstat(fd_.get(), &status) == 0 && S_ISREG(status.st_mode);
    if (is_regular && earlier == Earlier::kRefuse) {
      throw Failure("writing the file '" + path_ + "'", "it exists already",
                    "Name another file, or add --force to replace it (--append: to continue a CSV file).");
    }
    replaces_ = is_regular && earlier == Earlier::kReplace;
  }
  require(static_cast<bool>(fd_));
}

RecordingFile::~RecordingFile() {
  if (is_unused_) unlink(path_.c_str());
}

void RecordingFile::write(const std::string& text) {
  if (!fd_) return output_.write(text);
  require(!std::exchange(replaces_, false) || ftruncate(fd_.get(), 0) == 0);
  is_unused_ = false;
  require(write_all(fd_.get(), text));
}

void RecordingFile::require(bool is_done) const {
  if (!is_done) throw Failure::of_system("writing the file '" + path_ + "'");
}

}  // namespace pelmar::cli
