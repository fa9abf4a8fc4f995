#include "signal/screen.h"

#include <langinfo.h>
#include <locale.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "environment.h"
#include "failure.h"

namespace pelmar::cli {

namespace {

// The second screen, no cursor, no line breaks of the terminal's own.
constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[?7l\033[2J";
constexpr std::string_view kLeave = "\033[0m\033[?7h\033[?25h\033[?1049l";

constexpr int kDeadlySignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

std::atomic<int> g_terminal{-1};
std::atomic<bool> g_is_shown{false};  // drawing goes to the second screen; signals turn it off on any thread

// Safe in a signal handler.
void write_to_terminal(int terminal, std::string_view sequence) {
  if (terminal >= 0 && write(terminal, sequence.data(), sequence.size()) < 0) return;  // it is gone
}

void leave() {
  g_is_shown = false;
  write_to_terminal(g_terminal.exchange(-1), kLeave);
}

// Most signals are waited for elsewhere; one that gets here ends the process.
void leave_and_die(int signal) {
  leave();
  ::signal(signal, SIG_DFL);
  raise(signal);
}

void leave_while_stopped(int /*signal*/) {
  g_is_shown = false;
  write_to_terminal(g_terminal, kLeave);
  raise(SIGSTOP);
  write_to_terminal(g_terminal, kEnter);
  g_is_shown = true;
}

void handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, nullptr);
}

// What the character set of the user's locale has. The locale of the process stays as it is.
Glyphs screen_glyphs() {
  const locale_t users = newlocale(LC_CTYPE_MASK, "", nullptr);
  if (users == nullptr) return Glyphs::kAscii;
  const Glyphs glyphs = glyphs_of(nl_langinfo_l(CODESET, users));
  freelocale(users);
  return glyphs;
}

}  // namespace

bool is_screen(const Output& output) {
  return isatty(output.descriptor()) != 0 && environment("TERM", "dumb") != "dumb";
}

LiveWatch::LiveWatch(Output& output, std::string modem, uint32_t rate)
    : output_(output), style_{environment("NO_COLOR").empty(), screen_glyphs()} {
  state_.modem = std::move(modem);
  state_.rate = rate;
  static const int registered = std::atexit(leave);
  static_cast<void>(registered);
  for (const int signal : kDeadlySignals) handle(signal, leave_and_die);
  handle(SIGTSTP, leave_while_stopped);
  g_terminal = output.descriptor();
  write_to_terminal(g_terminal, kEnter);
  g_is_shown = true;
}

LiveWatch::~LiveWatch() {
  leave();
  for (const int signal : kDeadlySignals) handle(signal, SIG_DFL);
  handle(SIGTSTP, SIG_DFL);
  if (state_.readings == 0) return;
  std::string text;
  for (const std::string& line : live_view(last_, history_, state_, {size().columns, SIZE_MAX}, style_)) {
    text += line + "\n";
  }
  try {
    output_.write(text);
  } catch (const Failure&) {
    return;  // the terminal is gone
  }
}

TerminalSize LiveWatch::size() const {
  winsize size{};
  if (ioctl(output_.descriptor(), TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
  return {size.ws_col, size.ws_row};
}

// Draws nothing while the terminal is given back.
void LiveWatch::draw() {
  if (!g_is_shown || g_terminal < 0) return;
  std::string text;
  for (const std::string& line : live_view(last_, history_, state_, size(), style_)) {
    text += (text.empty() ? "\033[H" : "\r\n") + line + "\033[K";
  }
  output_.write(text + "\033[J");
}

void LiveWatch::take(const Reading& reading) {
  last_ = reading;
  history_.add(reading, Clock::now());
  ++state_.readings;
  state_.trouble.clear();
  draw();
}

void LiveWatch::miss(const std::string& problem) {
  const auto now = Clock::now();
  if (state_.trouble.empty()) lost_ = now;
  history_.add_gap(now);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - lost_).count();
  state_.trouble = "MODEM AWAY " + std::to_string(seconds) + " s: " + problem + "; Ctrl-C ends";
  draw();
}

}  // namespace pelmar::cli
