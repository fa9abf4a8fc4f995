#include "signal/screen.h"

#include <langinfo.h>
#include <locale.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string_view>

#include "environment.h"

namespace pelmar::cli {

namespace {

// The second screen, no cursor, no line breaks of the terminal's own.
constexpr std::string_view kEnter = "\033[?1049h\033[?25l\033[?7l\033[2J";
constexpr std::string_view kLeave = "\033[0m\033[?7h\033[?25h\033[?1049l";

constexpr int kDeadlySignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

std::atomic<int> g_terminal{-1};
std::atomic<bool> g_is_shown{false};  // drawing goes to the second screen; signals turn it off on any thread

// Safe in a signal handler.
void tell_terminal(int terminal, std::string_view sequence) {
  if (terminal >= 0 && write(terminal, sequence.data(), sequence.size()) < 0) return;  // it is gone
}

void leave() {
  g_is_shown = false;
  tell_terminal(g_terminal.exchange(-1), kLeave);
}

// Most signals are waited for elsewhere; one that gets here ends the process.
void leave_and_die(int signal) {
  leave();
  ::signal(signal, SIG_DFL);
  raise(signal);
}

void leave_while_stopped(int /*signal*/) {
  g_is_shown = false;
  tell_terminal(g_terminal, kLeave);
  raise(SIGSTOP);
  tell_terminal(g_terminal, kEnter);
  g_is_shown = true;
}

void handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, nullptr);
}

}  // namespace

bool is_screen(const Output& output) {
  return isatty(output.descriptor()) != 0 && environment("TERM", "dumb") != "dumb";
}

bool wants_colour() {
  return environment("NO_COLOR").empty();
}

// Asks the user's locale, and leaves that of the process as it is.
Glyphs screen_glyphs() {
  const locale_t users = newlocale(LC_CTYPE_MASK, "", nullptr);
  if (users == nullptr) return Glyphs::kAscii;
  const Glyphs glyphs = glyphs_of(nl_langinfo_l(CODESET, users));
  freelocale(users);
  return glyphs;
}

Screen::Screen(Output& output) : output_(output) {
  static const int registered = std::atexit(leave);
  static_cast<void>(registered);
  for (const int signal : kDeadlySignals) handle(signal, leave_and_die);
  handle(SIGTSTP, leave_while_stopped);
  g_terminal = output.descriptor();
  tell_terminal(g_terminal, kEnter);
  g_is_shown = true;
}

Screen::~Screen() {
  leave();
  for (const int signal : kDeadlySignals) handle(signal, SIG_DFL);
  handle(SIGTSTP, SIG_DFL);
}

TerminalSize Screen::size() const {
  winsize size{};
  if (ioctl(output_.descriptor(), TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
  return {size.ws_col, size.ws_row};
}

void Screen::draw(const std::vector<std::string>& lines) {
  if (!g_is_shown || g_terminal < 0) return;
  std::string text = "\033[H";
  for (size_t i = 0; i < lines.size(); ++i) text += (i == 0 ? "" : "\r\n") + lines[i] + "\033[K";
  text += "\033[J";
  output_.write({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

}  // namespace pelmar::cli
