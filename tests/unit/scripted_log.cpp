// What the library writes: the system log and standard output.
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <regex>

#include "scripted_platform.h"
#include "scripted_state.h"

namespace scripted {
namespace {

struct Log {
  std::mutex lock;
  std::vector<LogLine> lines;
};

Log& log() {
  static Log* const instance = new Log;
  return *instance;
}

}  // namespace

std::vector<LogLine> log_lines() {
  Guard guard(log().lock);
  return log().lines;
}

void clear_log() {
  Guard guard(log().lock);
  log().lines.clear();
}

std::vector<std::string> log_bodies() {
  static const std::regex prefix(R"(^(?:SUB\[\d+\]|\[[^\]]*\])\[[^\]:]+:\d+\] )");
  std::vector<std::string> bodies;
  for (const LogLine& line : log_lines()) {
    const std::string level = line.priority == LOG_ERR ? "E" : line.priority == LOG_DEBUG ? "D" : "?";
    std::smatch match;
    const bool prefixed = std::regex_search(line.text, match, prefix);
    bodies.push_back(prefixed ? level + " " + match.suffix().str() : level + "|" + line.text);
  }
  return bodies;
}

bool logged(const std::string& body) {
  const auto bodies = log_bodies();
  return std::find(bodies.begin(), bodies.end(), body) != bodies.end();
}

std::vector<std::string> messages() {
  std::vector<std::string> bodies = log_bodies();
  std::erase_if(bodies, [](const std::string& body) {
    return body.find(": function entry ----") != std::string::npos || body.find(": function exit") != std::string::npos;
  });
  return bodies;
}

// --- standard output ---

CaptureOutput::CaptureOutput() : saved_(dup(STDOUT_FILENO)), file_(memfd_create("stdout", 0)) {
  std::fflush(stdout);
  dup2(file_, STDOUT_FILENO);
}

CaptureOutput::~CaptureOutput() {
  std::fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
  close(file_);
}

std::string CaptureOutput::text() {
  std::fflush(stdout);
  std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
  const ssize_t size = pread(file_, text.data(), text.size(), 0);
  text.resize(size < 0 ? 0 : static_cast<size_t>(size));
  return text;
}

}  // namespace scripted

using namespace scripted;

extern "C" void vsyslog(int priority, const char* format, va_list arguments) {
  char text[16384];
  std::vsnprintf(text, sizeof(text), format, arguments);
  Guard guard(log().lock);
  log().lines.push_back({priority, text});
}
