#include "signal/screen.h"

#include <langinfo.h>
#include <locale.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <termios.h>
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

constexpr int kDeadlySignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS};
constexpr int kBackgroundPeriodMs = 500;
constexpr size_t kLeastRows = 3;  // that scrolling leaves: the status, the headings and a line

std::atomic<int> g_terminal{-1};
std::atomic<bool> g_is_shown{false};  // drawing goes to the second screen; signals turn it off on any thread
std::atomic<bool> g_has_keys{false};
termios g_usual_modes;  // while g_has_keys

// Safe in a signal handler.
void write_to_terminal(int terminal, std::string_view sequence) {
  if (terminal >= 0 && write(terminal, sequence.data(), sequence.size()) < 0) return;  // it is gone
}

// A process in the background must leave the terminal's modes alone, and would be stopped.
bool is_in_foreground() {
  return tcgetpgrp(STDIN_FILENO) == getpgrp();
}

void enter() {
  write_to_terminal(g_terminal, kEnter);
  if (is_in_foreground() && tcgetattr(STDIN_FILENO, &g_usual_modes) == 0) {
    termios modes = g_usual_modes;
    modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    g_has_keys = tcsetattr(STDIN_FILENO, TCSANOW, &modes) == 0;
  }
  g_is_shown = true;
}

void leave() {
  if (!g_is_shown.exchange(false)) return;
  if (g_has_keys.exchange(false) && is_in_foreground()) tcsetattr(STDIN_FILENO, TCSANOW, &g_usual_modes);
  write_to_terminal(g_terminal, kLeave);
}

// The handler of signals that end the process: of SIGINT, SIGTERM and SIGHUP only the second one (signals.h).
void leave_and_raise(int signal) {
  leave();
  ::signal(signal, SIG_DFL);
  raise(signal);
}

void leave_while_stopped(int /*signal*/) {
  leave();
  raise(SIGSTOP);
  enter();
}

void handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, nullptr);
}

// The glyphs of the character set of the user's locale. The locale of the process stays as it is.
Glyphs screen_glyphs() {
  const locale_t users = newlocale(LC_CTYPE_MASK, "", nullptr);
  if (users == nullptr) return Glyphs::kAscii;
  const bool has_blocks = std::string_view(nl_langinfo_l(CODESET, users)) == "UTF-8";
  freelocale(users);
  return has_blocks ? Glyphs::kBlocks : Glyphs::kAscii;
}

}  // namespace

bool is_screen(const Output& output) {
  return isatty(output.descriptor()) != 0 && environment("TERM", "dumb") != "dumb";
}

LiveWatch::LiveWatch(Output& output, Inbox& inbox, std::string modem, uint32_t rate)
    : output_(output), inbox_(inbox), style_{environment("NO_COLOR").empty(), screen_glyphs()} {
  state_.modem = std::move(modem);
  state_.rate = rate;
  std::atexit(leave);
  for (const int signal : kDeadlySignals) handle(signal, leave_and_raise);
  handle(SIGTSTP, leave_while_stopped);
  handle(SIGTTIN, SIG_IGN);  // reading keys in the background fails then, and does not stop the process
  g_terminal = output.descriptor();
  enter();
  ended_.reset(eventfd(0, EFD_CLOEXEC));
  if (g_has_keys && ended_) keys_ = std::thread([this] { read_keys(); });
}

LiveWatch::~LiveWatch() {
  if (keys_.joinable()) {
    eventfd_write(ended_.get(), 1);
    keys_.join();
  }
  leave();
  for (const int signal : kDeadlySignals) handle(signal, SIG_DFL);
  handle(SIGTSTP, SIG_DFL);
  if (state_.readings == 0) return;
  try {
    output_.write(join(picture({size().columns, SIZE_MAX}), "\n") + "\n");
  } catch (const Failure&) {
    return;  // the terminal is gone
  }
}

TerminalSize LiveWatch::size() const {
  winsize size{};
  if (ioctl(output_.descriptor(), TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) return {};
  return {size.ws_col, size.ws_row};
}

std::vector<std::string> LiveWatch::picture(TerminalSize size) const {
  return live_view(state_.is_paused ? frozen_ : shown_, state_, size, style_);
}

// Draws nothing while the terminal is given back.
void LiveWatch::draw() {
  if (g_is_shown) output_.write("\033[H" + join(picture(size()), "\033[K\r\n") + "\033[K\033[J");
}

void LiveWatch::take(const Reading& reading) {
  const std::lock_guard lock(mutex_);
  shown_.reading = reading;
  shown_.history.add(reading, Clock::now());
  ++state_.readings;
  state_.problem.clear();
  draw();
}

void LiveWatch::miss(const std::string& problem) {
  const std::lock_guard lock(mutex_);
  const auto now = Clock::now();
  if (state_.problem.empty()) lost_ = now;
  shown_.history.add_gap(now);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - lost_).count();
  state_.problem = "MODEM AWAY " + std::to_string(seconds) + " s: " + problem + "; Ctrl-C ends";
  draw();
}

// --- keys ---

void LiveWatch::read_keys() {
  pollfd fds[] = {{ended_.get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 2, -1) < 0) continue;  // interrupted
    if (fds[0].revents != 0) return;
    char keys[64];
    const ssize_t count = ::read(STDIN_FILENO, keys, sizeof keys);
    if (count == 0) return;  // the terminal is gone
    if (count < 0) poll(fds, 1, kBackgroundPeriodMs);
    try {
      const std::lock_guard lock(mutex_);
      for (ssize_t i = 0; i < count; ++i) act_on(keys[i]);
      draw();
    } catch (const Failure&) {
      return;  // the terminal is gone
    }
  }
}

// An arrow key sends a sequence; only its last byte, a letter from A to D, has an effect.
void LiveWatch::act_on(char key) {
  if (key == 'q') inbox_.interrupt();
  if (key == 'p') {
    state_.is_paused = !state_.is_paused;
    frozen_ = shown_;
  }
  if (key == '1' || key == '2') {
    const auto sub = static_cast<uint32_t>(key - '1');
    state_.only_sub = state_.only_sub == sub ? std::nullopt : std::optional(sub);
    state_.hidden_rows = 0;
  }
  if (key == 'A' && state_.hidden_rows > 0) --state_.hidden_rows;
  if (key == 'B' && picture({size().columns, SIZE_MAX}).size() > kLeastRows) ++state_.hidden_rows;
  if (key == 'C' && state_.hidden_seconds > 0) --state_.hidden_seconds;
  if (key == 'D' && state_.hidden_seconds < History::kMostColumns) ++state_.hidden_seconds;
}

}  // namespace pelmar::cli
