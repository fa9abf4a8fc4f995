// The program as its users run it: exit status, clean output, a modem of its own, and an end that frees the modem's
// client ids.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "client_program.h"
#include "sim_process.h"

namespace pelmar::cli {
namespace {

using sim::test::comes_true;
using sim::test::Outcome;
using sim::test::ScratchDirectory;
using sim::test::SimProcess;
using Clock = std::chrono::steady_clock;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class ProgramTest : public testing::Test {
 protected:
  ProgramTest() {
    setenv("PELMAR_PROPERTY_DIR", directory_.path("properties").c_str(), 1);
    unsetenv("PELMAR_QMI_SOCKET");
  }

  std::string path(const std::string& name) const { return directory_.path(name); }
  const ScratchDirectory& directory() const { return directory_; }

 private:
  ScratchDirectory directory_;
};

class ModemProgramTest : public ProgramTest {
 protected:
  ModemProgramTest() { setenv("PELMAR_QMI_SOCKET", modem_.socket().c_str(), 1); }

  // The clients that the modem knows, over all services.
  size_t clients() const {
    size_t count = 0;
    const nlohmann::json status = modem_.operator_command("status");
    for (const auto& service : status.at("services")) count += service.at("clients").size();
    return count;
  }

  // Starts the program with its output in a file. It ignores SIGINT as a shell's background process does.
  pid_t start_in_background(std::vector<const char*> arguments) const {
    arguments.insert(arguments.begin(), MODEM_API_TEST);
    arguments.push_back(nullptr);
    const pid_t process = fork();
    if (process == 0) {
      signal(SIGINT, SIG_IGN);
      dup2(open(path("output").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
      execv(MODEM_API_TEST, const_cast<char* const*>(arguments.data()));
      _exit(127);
    }
    return process;
  }

  // Ends a program started in the background. Exit status, or 1000 and the signal that killed it.
  static int end(pid_t process, int signal) {
    kill(process, signal);
    int status = 0;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
  }

  std::string output() const {
    std::ifstream file(path("output"));
    return {std::istreambuf_iterator<char>(file), {}};
  }

  bool comes_to_print(const std::string& text) const {
    return comes_true([&] { return output().find(text) != std::string::npos; });
  }

  bool modem_comes_to_have(size_t count) const {
    return comes_true([&] { return clients() == count; });
  }

  const SimProcess& modem() const { return modem_; }

 private:
  SimProcess modem_{directory()};
};

TEST_F(ModemProgramTest, ShowsThePathsControlCharactersAsText) {
  const std::string path = " \"$(printf '/nv/\\033[1m\\302\\233')\"";
  constexpr const char* kShown = "/nv/\\x1b[1m\\xc2\\x9b";
  EXPECT_THAT(shell("client efs-path read" + path).output, HasSubstr(kShown));
  EXPECT_THAT(shell("client efs-path write" + path + " 00").output, HasSubstr(kShown));
  EXPECT_THAT(shell("client --json efs-path read" + path).output, HasSubstr(R"(/nv/\u001b[1m\u009b)"));
}

TEST_F(ModemProgramTest, WritesReadsAndDeletesEveryKindOfItem) {
  const struct {
    const char* kind;
    const char* address;
  } kItems[] = {{"nv", "10 --qualifier 1 --index 2"},
                {"efs", "10 --qualifier 3"},
                {"efs-path", "/nv/a --index 4"},
                {"rfnv", "10"}};
  for (const auto& item : kItems) {
    SCOPED_TRACE(item.kind);
    const auto with = [&item](const std::string& verb) {
      return "client " + std::string(item.kind) + " " + verb + " " + item.address;
    };
    const std::string file = path("data");
    EXPECT_EQ(shell(with("write") + " --text 'some text'").status, 0);
    EXPECT_THAT(shell(with("read")).output, HasSubstr("73 6f 6d 65 20 74 65 78 74  "));
    EXPECT_THAT(shell(with("read") + " @" + file + " && cat " + file).output, EndsWith("\nsome text"));
    EXPECT_EQ(shell(with("write") + " 00 && " + with("write") + " @" + file).status, 0);
    EXPECT_EQ(shell(with("read") + " --output -").output, "some text");
    EXPECT_EQ(shell(with("delete")).status, 0);
    const Outcome gone = shell(with("read"));
    EXPECT_EQ(gone.status, 1);
    EXPECT_THAT(gone.output, HasSubstr("failed: QMI error 50, no entry (MODEM_API_ERR_GENERIC, 1)"));
  }
}

TEST_F(ModemProgramTest, RefusalsNameTheCodeAndLeaveTheItem) {
  const Outcome refused = shell("client nv write 1 0a && head -c 257 /dev/zero > " + path("long") +
                                " && client nv write 1 @" + path("long") + " --json 2>/dev/null");
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.output, HasSubstr(R"("code":5,"name":"MODEM_API_ERR_INVALID_PARAM")"));
  EXPECT_THAT(shell("client efs-path write /../x 00").output,
              AllOf(HasSubstr("QMI error 48, invalid argument"), HasSubstr("path")));
  EXPECT_EQ(shell("client nv read 1 --json").output, R"({"item":1,"qualifier":0,"index":0,"length":1,"data":"0a"})"
                                                     "\n");
}

TEST_F(ModemProgramTest, LogLinesOfTheLibraryStayOutOfTheOutput) {
  EXPECT_EQ(shell("client raw 01 --verbose --json 2>/dev/null").output, "{\"accepted\":1}\n");
  EXPECT_THAT(shell("client nv read 1 --verbose 2>&1 >/dev/null").output,
              AllOf(HasSubstr(": -> service 0xe4 request 0x"), HasSubstr(": <- service 0xe4 response 0x"),
                    HasSubstr(": the exchange failed: QMI error 50"), Not(HasSubstr("function entry"))));
  EXPECT_EQ(shell("client raw 01 2>&1 >/dev/null").output, "");
  // With nothing to print to, what the library prints must not end up in a connection to the modem.
  EXPECT_EQ(shell("client raw 01 --verbose <&- >&- 2>&-").status, 1);
  EXPECT_EQ(shell("client raw 01 >/dev/full 2>/dev/null").status, 1);
}

TEST_F(ModemProgramTest, AsynchronousCommandShowsDataAndEnd) {
  EXPECT_EQ(shell("client raw --async --text ping --json").output,
            "{\"sent\":4}\n"
            "{\"callback\":\"data\",\"length\":4,\"data\":\"70696e67\",\"text\":\"ping\"}\n"
            "{\"callback\":\"end\",\"name\":\"MODEM_API_RESP_END\"}\n");
}

TEST_F(ModemProgramTest, DangerousCommandsAreRefusedWithoutATerminalAndConfirmation) {
  for (const char* command : {"reset", "shutdown-notice", "lock lte 1850:101", "nr-mode 1"}) {
    const Outcome refused = shell(std::string("client ") + command + " </dev/null");
    EXPECT_EQ(refused.status, 1) << command;
    EXPECT_THAT(refused.output, HasSubstr("--yes")) << command;
    EXPECT_EQ(shell(std::string("client ") + command + " --yes").status, 0) << command;
    EXPECT_TRUE(comes_true([&] { return modem().operator_command("status").at("state") == "ready"; })) << "after reset";
  }
}

TEST_F(ModemProgramTest, NoResponseIsNoSuccess) {
  modem().operator_command("cut 9 nas 0x43");
  modem().operator_command("error 3 nas 0x89");
  EXPECT_THAT(shell("client cell-info").output, HasSubstr("(MODEM_API_ERR_GENERIC, 1)"));
  EXPECT_THAT(shell("client drx").output, HasSubstr("QMI error 3, internal (MODEM_API_ERR_GENERIC, 1)"));
  for (const char* command : {"sys-mode", "tx-power --max"}) {
    modem().operator_command("error 3 vs any 1");
    EXPECT_THAT(shell("client " + std::string(command)),
                AllOf(testing::Field(&Outcome::status, 1),
                      testing::Field(&Outcome::output, HasSubstr("of subscription 0 failed: QMI error 3"))));
  }
  modem().operator_command("silence nas");
  const Outcome late = shell("client cell-info --timeout 1 --json 2>/dev/null");
  EXPECT_EQ(late.status, 1);
  EXPECT_THAT(late.output, HasSubstr("not done in 1 s"));
  EXPECT_TRUE(modem_comes_to_have(0));
}

TEST_F(ModemProgramTest, FollowsEventsThroughARestartUntilTheCount) {
  modem().operator_command("service nas down");
  const pid_t process = start_in_background({"events", "--count", "1", "--services", "--json"});
  EXPECT_TRUE(comes_to_print(R"("notice":"following")"));
  EXPECT_THAT(output(), HasSubstr("; the NAS service of subscription 0 is down"));
  modem().operator_command("restart 300");
  EXPECT_TRUE(comes_to_print(R"("notice":"modem_back")"));
  EXPECT_THAT(output(), HasSubstr(R"("notice":"modem_away")"));
  modem().operator_command("silence vs");
  EXPECT_TRUE(comes_true([&] { return modem().operator_command("status").at("counters").at("faults") >= 1; }))
      << "it waits for a response";
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(comes_true([&] {
    modem().operator_command("event 5 9");
    return output().find(R"("event":5)") != std::string::npos;
  }));
  EXPECT_EQ(end(process, 0), 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(25)) << "no response comes for 30 s";
  modem().operator_command("clear");
  EXPECT_THAT(output(), HasSubstr(R"("event":5,"name":"report_c","value":9})"));
  const Outcome none = shell("client events --count 1 --for 1");
  EXPECT_EQ(none.status, 1);
  EXPECT_THAT(none.output, HasSubstr("only 0 of 1"));
}

TEST_F(ModemProgramTest, HoldsTheSarStateOverARestartOfTheService) {
  const pid_t process = start_in_background({"sar", "set", "3", "--hold", "3600", "--json"});
  EXPECT_TRUE(comes_to_print(R"("sar":"set")")) << output();
  modem().operator_command("service sar down");
  EXPECT_TRUE(comes_to_print(R"("sar":"down")")) << output();
  modem().operator_command("service sar up");
  EXPECT_TRUE(comes_to_print(R"("sar":"up")")) << output();
  EXPECT_EQ(end(process, SIGINT), 130);
}

TEST_F(ModemProgramTest, ASignalFreesTheClientOfAWaitingCommand) {
  modem().operator_command("silence vs");
  const struct {
    std::vector<const char*> command;
    int signal;
  } kCases[] = {{{"nv", "read", "1"}, SIGINT}, {{"raw", "01", "--async"}, SIGTERM}, {{"events"}, SIGHUP}};
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.command[0]);
    // Nothing calls back after a release, so the buffers of an asynchronous command under way go with the process.
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    const pid_t process = start_in_background(each.command);
    EXPECT_TRUE(modem_comes_to_have(1));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(end(process, each.signal), 128 + each.signal);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(25)) << "no answer comes for 30 s";
    EXPECT_TRUE(modem_comes_to_have(0));
  }
}

TEST_F(ProgramTest, AMissingModemIsWaitedForOnlyOnRequest) {
  const std::string command = "client --modem " + path("nobody") + " nv read 1";
  EXPECT_THAT(shell(command).output, HasSubstr("nobody serves " + path("nobody")));
  const Outcome late = shell(command + " --wait --timeout 1");
  EXPECT_EQ(late.status, 1);
  EXPECT_THAT(late.output, HasSubstr("not done in 1 s"));
  // Waiting does not mend a name.
  EXPECT_THAT(shell("client --wait --timeout 20 --modem " + path(std::string(120, 'a')) + " info").output,
              HasSubstr(" failed: a socket's name has 1 to 107 characters"));
}

// --- the program's own modem ---

class OwnModemTest : public ProgramTest {
 protected:
  OwnModemTest() {
    setenv("XDG_STATE_HOME", path("state").c_str(), 1);
    std::filesystem::create_directory(path("run"));
    setenv("XDG_RUNTIME_DIR", path("run").c_str(), 1);
    setenv("PELMAR_MODEM_SIM", MODEM_SIM, 1);
  }
  ~OwnModemTest() override { shell(quit()); }

  std::string quit() const {
    return MODEM_SIM " ctl --storage " + path("state/pelmar/modem") + " quit >/dev/null 2>&1";
  }
};

TEST_F(OwnModemTest, StartsOnceForManyAndKeepsItsStorage) {
  const Outcome many = shell(
      "for i in 1 2 3 4 5 6 7 8; do client nv write $i 0$i & pids=\"$pids $!\"; done\n"
      "for pid in $pids; do wait $pid || exit 1; done");
  EXPECT_EQ(many.status, 0) << many.output;
  EXPECT_EQ(shell(quit() + "; client nv read 7 -o - | od -An -tx1").output, " 07\n");
}

TEST_F(OwnModemTest, TellsWhyTheModemDoesNotStart) {
  setenv("PELMAR_MODEM_SIM", "/no/such/program", 1);
  Outcome outcome = shell("client nv read 1");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output, HasSubstr("/no/such/program: No such file or directory"));

  setenv("PELMAR_MODEM_SIM", MODEM_SIM, 1);
  setenv("XDG_RUNTIME_DIR", path(std::string(100, 'a')).c_str(), 1);
  std::filesystem::create_directory(path(std::string(100, 'a')));
  outcome = shell("client nv read 1");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output,
              StartsWith("modem_api_test: starting the simulated modem failed: modem_sim: socket name"));
}

}  // namespace
}  // namespace pelmar::cli
