#include "message_trace.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>

#include "environment.h"
#include "handle.h"
#include "printable_text.h"

namespace pelmar::platform {
namespace {

std::string describe(int error) {
  return error == EPIPE || error == ETIMEDOUT ? "no process reads it" : std::strerror(error);
}

}  // namespace

class MessageTrace {
 public:
  // The trace of this process; null: messages are not traced.
  static MessageTrace* of_this_process() {
    auto& trace = of_process<MessageTrace>();
    std::call_once(trace.opened_, [&trace] { trace.open(); });
    return trace.writer_ ? &trace : nullptr;
  }

  static const char* problem() {
    auto& trace = of_process<MessageTrace>();
    trace.has_reporter_ = true;
    of_this_process();
    return trace.problem_;
  }

  uint32_t add_link(const std::string& transport, TraceLink::Sharing sharing) {
    return writer_->add_link({transport, process_}, sharing);
  }

  void write(uint32_t link, qmi::Direction direction, const qmi::Frame& frame) {
    if (forks_ == fork_count()) writer_->write(link, direction, frame.service, frame.client, frame.message);
  }

 private:
  void open() {
    const std::string name = environment(kTraceVariable);
    if (name.empty()) return;
    std::string problem;
    const std::string subject = std::string(kTraceVariable) + "=" + printable_text(name);
    if (forks_ > 0 && name.starts_with("/dev/fd/")) {
      return report(subject + ": messages are not traced: ", "the parent of this process writes it");
    }
    file_ = ProcessFd([&] { return qmi::open_capture(name, problem); });
    if (!file_) return report(subject + ": messages are not traced: ", problem);
    const auto on_end = [this, subject](int error) { report(subject + ": the trace ends: ", describe(error)); };
    writer_.emplace(file_.get(), "libpelmar_platform_linux " PELMAR_VERSION, on_end);
  }

  // Called at most once.
  void report(const std::string& subject, const std::string& problem) {
    text_ = problem;
    problem_ = text_.c_str();
    if (!has_reporter_) std::fprintf(stderr, "%s\n", (subject + problem).c_str());
    ::syslog(LOG_ERR, "%s", (subject + problem).c_str());
  }

  const unsigned forks_ = fork_count();
  const std::string process_ = describe_process(::getpid());
  std::once_flag opened_;
  ProcessFd file_;
  std::optional<qmi::CaptureWriter> writer_;
  std::atomic<bool> has_reporter_{false};  // the program reports the problem to its user
  std::string text_;
  std::atomic<const char*> problem_{""};  // the text, once there is one
};

TraceLink::TraceLink(const std::string& transport, Sharing sharing) : trace_(MessageTrace::of_this_process()) {
  if (trace_ != nullptr) number_ = trace_->add_link(transport, sharing);
}

void TraceLink::write_to_trace(qmi::Direction direction, const qmi::Frame& frame) const {
  trace_->write(number_, direction, frame);
}

const char* trace_problem() {
  return MessageTrace::problem();
}

}  // namespace pelmar::platform
