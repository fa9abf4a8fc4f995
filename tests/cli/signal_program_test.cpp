// The live view on a terminal and recordings, as users run them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "client_program.h"

namespace pelmar::cli {
namespace {

using sim::test::comes_true;
using sim::test::Outcome;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{60};
const std::string kEnter = "\033[?1049h";
const std::string kLeave = "\033[?25h\033[?1049l";

// The client on a terminal of its own.
class Terminal {
 public:
  explicit Terminal(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), MODEM_API_TEST);
    arguments.push_back(nullptr);
    const winsize size{24, 80, 0, 0};
    process_ = forkpty(&terminal_, nullptr, nullptr, &size);
    if (process_ != 0) return;
    setenv("TERM", "xterm", 1);
    execv(MODEM_API_TEST, const_cast<char* const*>(arguments.data()));
    _exit(127);
  }

  ~Terminal() {
    if (process_ > 0) end(SIGKILL);
    close(terminal_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Whether the text comes to be drawn, behind what was waited for before.
  bool shows(const std::string& text) {
    const Clock::time_point deadline = Clock::now() + kPatience;
    while (drawn_.find(text, seen_) == drawn_.npos) {
      if (Clock::now() > deadline || !receive()) return false;
    }
    seen_ = drawn_.find(text, seen_) + text.size();
    return true;
  }

  void type(char key) const { EXPECT_EQ(write(terminal_, &key, 1), 1); }
  void send(int signal) const { kill(process_, signal); }

  // Sends the signal, if any, and takes what is drawn until the end. Exit status, or minus the signal.
  int end(int signal = 0) {
    if (signal != 0) send(signal);
    while (receive()) {
    }
    int status = 0;
    if (waitpid(process_, &status, 0) != process_) return -1;
    process_ = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }

  const std::string& drawn() const { return drawn_; }

 private:
  bool receive() {
    pollfd waiting{terminal_, POLLIN, 0};
    char bytes[4096];
    if (poll(&waiting, 1, 1000 * static_cast<int>(kPatience.count())) != 1) return false;
    const ssize_t count = read(terminal_, bytes, sizeof bytes);
    if (count <= 0) return false;
    drawn_.append(bytes, static_cast<size_t>(count));
    return true;
  }

  int terminal_ = -1;
  pid_t process_ = -1;
  std::string drawn_;
  size_t seen_ = 0;
};

class SignalProgramTest : public ProgramWithModemTest {
 protected:
  static std::string content(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  // The screen was given back once, and nothing was drawn at places of its own after that.
  static void expect_clean(const Terminal& terminal) {
    const std::string& drawn = terminal.drawn();
    const size_t left = drawn.rfind(kLeave);
    ASSERT_NE(left, drawn.npos);
    EXPECT_LT(drawn.rfind(kEnter), left);
    const std::string after = drawn.substr(left + kLeave.size());
    for (const char* sequence : {"\033[H", "\033[J", "\033[?"}) EXPECT_EQ(after.find(sequence), after.npos);
  }
};

// --- the live view ---

TEST_F(SignalProgramTest, LiveViewLeavesTheTerminalCleanOnCtrlC) {
  Terminal terminal({"signal", "--watch", "--rate", "20"});
  ASSERT_TRUE(terminal.shows("subscription 1"));
  ASSERT_TRUE(terminal.shows("3 readings")) << "it goes on";
  terminal.type('\003');
  EXPECT_EQ(terminal.end(), 128 + SIGINT);
  expect_clean(terminal);
  const std::string last = terminal.drawn().substr(terminal.drawn().rfind(kLeave));
  EXPECT_THAT(last, HasSubstr("subscription 1")) << "the last picture stays";
}

TEST_F(SignalProgramTest, LiveViewSurvivesARestartOfTheModem) {
  Terminal terminal({"signal", "--watch", "--rate", "20"});
  ASSERT_TRUE(terminal.shows("2 readings"));
  modem().operator_command("restart 300");
  ASSERT_TRUE(terminal.shows("MODEM AWAY"));
  ASSERT_TRUE(terminal.shows(" readings, 20 a second"));
  EXPECT_EQ(terminal.end(SIGTERM), 128 + SIGTERM);
  expect_clean(terminal);
}

TEST_F(SignalProgramTest, LiveViewLeavesTheTerminalCleanWhereTheModemIsGone) {
  Terminal terminal({"signal", "--watch", "--rate", "20"});
  ASSERT_TRUE(terminal.shows("2 readings"));
  modem().end(SIGKILL);
  ASSERT_TRUE(terminal.shows("MODEM AWAY"));
  ASSERT_TRUE(terminal.shows("its vendor-specific service is down"));
  EXPECT_EQ(terminal.end(SIGINT), 128 + SIGINT);
  expect_clean(terminal);
}

TEST_F(SignalProgramTest, EvenTheSecondSignalLeavesTheTerminalClean) {
  Terminal terminal({"signal", "--watch", "--rate", "20"});
  ASSERT_TRUE(terminal.shows("2 readings"));
  modem().operator_command("silence vs");
  ASSERT_TRUE(comes_true([&] { return modem().operator_command("status").at("counters").at("faults") >= 1; }))
      << "it waits for an answer";
  terminal.send(SIGINT);
  EXPECT_EQ(terminal.end(SIGTERM), -SIGTERM) << "another signal than the first: two of one kind may arrive as one";
  expect_clean(terminal);
}

TEST_F(SignalProgramTest, WatchesInLinesWhereThereIsNoTerminal) {
  const Outcome outcome = shell("client signal --watch --rate 50 --count 3");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("  sub 0  "), HasSubstr("  sub 1  "), Not(HasSubstr("\033"))));
}

// --- recordings ---

TEST_F(SignalProgramTest, RecordsAndDraws) {
  const std::string csv = path("a.csv");
  const Outcome outcome = shell("client signal --rate 50 --count 4 --json --csv " + csv + " --plot " + path("a.svg"));
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  std::istringstream lines(outcome.output);
  size_t readings = 0;
  for (std::string line; std::getline(lines, line);) readings += nlohmann::json::parse(line).contains("subscriptions");
  EXPECT_EQ(readings, 4U);
  EXPECT_THAT(content(path("a.svg")), StartsWith("<svg "));
  EXPECT_EQ(shell("client signal --from " + csv + " --plot " + path("b.svg")).status, 0);
  EXPECT_EQ(content(path("b.svg")), content(path("a.svg")));
  EXPECT_EQ(shell("client signal --rate 50 --count 2 --csv - | cut -d, -f5 | grep -c lte_pcc").output, "4\n");
  EXPECT_EQ(shell("client signal --from " + csv + " --plot - | grep -c '^<svg '").output, "1\n");
}

TEST_F(SignalProgramTest, AnEarlierRecordingIsLostOnlyOnRequest) {
  const std::string csv = path("a.csv");
  const std::string record = "client signal --count 1 --csv " + csv;
  EXPECT_EQ(shell(record).output, "1 reading written to " + csv + "\n");
  const std::string first = content(csv);
  EXPECT_THAT(shell(record), testing::Field(&Outcome::status, 1));
  EXPECT_EQ(content(csv), first);
  EXPECT_EQ(shell("printf cut >>" + csv + "; " + record + " --append").status, 0);
  const std::string both = content(csv);
  EXPECT_THAT(both, StartsWith(first));
  EXPECT_EQ(std::count(both.begin(), both.end(), '\n'), 2 * std::count(first.begin(), first.end(), '\n') - 1);
  EXPECT_EQ(shell(record + " --force").status, 0);
  EXPECT_LT(content(csv).size(), both.size());
  EXPECT_EQ(shell("client signal --from " + csv + " --plot " + csv).status, 1);
  EXPECT_EQ(shell("client signal --from " + csv + " --plot " + path("./a.csv") + " --force").status, 2);
  EXPECT_THAT(content(csv), StartsWith("time,"));
  // What is no recording stays as it is, and a picture that is refused leaves no new table.
  for (const char* text : {"one line", "two\nlines"}) {
    EXPECT_EQ(shell("printf '" + std::string(text) + "' >" + path("b") + "; client signal --count 1 --append --csv " +
                    path("b"))
                  .status,
              1);
    EXPECT_EQ(content(path("b")), text);
  }
  EXPECT_EQ(shell("client signal --count 1 --csv " + path("c") + " --plot " + path("b")).status, 1);
  EXPECT_EQ(shell("client signal --count 1 --csv " + path("c") + " --plot " + path("./c") + " --force").status, 2);
  EXPECT_FALSE(std::ifstream(path("c")).is_open());
}

TEST_F(SignalProgramTest, ARecordingWhoseModemDiesIsAFailure) {
  modem().operator_command("delay 0 vs any 20");
  modem().operator_command("error 52 vs");
  const Outcome refused = shell("client signal --for 1 --csv " + path("refused.csv"));
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.output, AllOf(HasSubstr("QMI error 52"), HasSubstr("0 readings came before")));
  modem().operator_command("clear");
  modem().operator_command("delay 0 vs any 20");
  modem().operator_command("die modem vs");
  const Outcome lost = shell("client signal --for 1 --csv " + path("a.csv") + " --plot " + path("a.svg"));
  EXPECT_EQ(lost.status, 1);
  EXPECT_THAT(lost.output, HasSubstr("0 readings came before"));
  EXPECT_GT(modem().end(0), 0) << "it died";
}

TEST_F(SignalProgramTest, ARecordingIsDrawnInTimeWhoeverDoesNotRespondOrRead) {
  // The shell holds the pipe open and reads nothing.
  const Outcome unread =
      shell("mkfifo " + path("pipe") + " && exec 3<>" + path("pipe") +
            " && client --json --timeout 2 signal --rate 50 --watch --plot " + path("a.svg") + " >&3");
  EXPECT_EQ(unread.status, 1);
  EXPECT_THAT(unread.output, HasSubstr("not done in 2 s"));
  EXPECT_THAT(content(path("a.svg")), StartsWith("<svg "));

  const std::string picture = path("b.svg");
  Terminal terminal({"signal", "--rate", "20", "--watch", "--plot", picture.c_str()});
  ASSERT_TRUE(terminal.shows("2 readings"));
  modem().operator_command("silence vs");
  ASSERT_TRUE(comes_true([&] { return modem().operator_command("status").at("counters").at("faults") >= 1; }));
  EXPECT_EQ(terminal.end(SIGINT), 128 + SIGINT);
  EXPECT_THAT(content(path("b.svg")), StartsWith("<svg "));
  expect_clean(terminal);
}

TEST_F(SignalProgramTest, RefusesWhatContradictsItself) {
  for (const char* options :
       {"--from a.csv", "--from a.csv --plot b.svg --count 3", "--csv - --json", "--csv - --watch", "--csv - --plot -",
        "--plot - --json", "--csv a --plot a", "--append", "--csv - --append", "--force", "--rate 0", "--sub 2"}) {
    EXPECT_EQ(shell("client signal " + std::string(options)).status, 2) << options;
  }
  for (const std::string& options :
       std::vector<std::string>{"--csv /no/such/directory/a.csv", "--from /no/such/file --plot " + path("a.svg"),
                                "--count 1 --plot /no/such/directory/a.svg", "--count 100 --for 1"}) {
    EXPECT_EQ(shell("client signal " + options).status, 1) << options;
  }
}

}  // namespace
}  // namespace pelmar::cli
