// The program: how it starts and ends, whom it admits, and the commands of ctl.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <thread>

#include "qmux_client.h"
#include "sim_process.h"
#include "unix_socket.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;

Outcome modem_sim(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), MODEM_SIM);
  return run_program(arguments);
}

class ProcessTest : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return directory_.path(name); }
  Outcome serve(const std::string& socket, const std::string& storage, const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments = {"serve", "--socket", socket, "--storage", storage};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return modem_sim(arguments);
  }

  ScratchDirectory directory_;
};

TEST_F(ProcessTest, SignalsEndItAndItsSocketFiles) {
  for (const int signal : {SIGINT, SIGTERM}) {
    SimProcess modem(directory_);
    EXPECT_TRUE(fs::exists(modem.socket()));
    EXPECT_EQ(modem.end(signal), 0);
    EXPECT_FALSE(fs::exists(modem.socket()));
    EXPECT_FALSE(fs::exists(path("storage/control")));
  }
}

TEST_F(ProcessTest, SocketsOfADeadModemAreReplacedAndThoseOfALiveOneRefused) {
  EXPECT_EQ(SimProcess(directory_).end(SIGKILL), -SIGKILL);
  EXPECT_TRUE(fs::exists(path("qmux")));
  SimProcess modem(directory_);
  const std::string abstract = "@" + path("name");
  const ScratchDirectory other;
  const SimProcess on_abstract(other, {}, abstract);
  const struct {
    std::string socket, storage;
    const char* reason;
  } cases[] = {
      {modem.socket(), path("other"), "another process serves socket"},
      {abstract, path("other"), "another process serves socket"},
      {path("q2"), path("storage"), "in use by another modem_sim"},
      {MODEM_SIM, path("other"), "is no socket"},
  };
  for (const auto& each : cases) {
    const Outcome outcome = serve(each.socket, each.storage);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.output.find(each.reason), std::string::npos) << outcome.output;
  }
  EXPECT_TRUE(fs::exists(MODEM_SIM));
  EXPECT_NE(QmuxClient(modem.socket()).allocate(kVs), 0) << "the live one is not disturbed";
}

TEST_F(ProcessTest, WrongOptionsEndItWithStatusTwo) {
  const char* const wrong[][2] = {
      {"--seed", "-1"},        {"--seed", "18446744073709551616"}, {"--seed", "1x"},      {"--max-entries", "-1"},
      {"--reset-ms", "-5"},    {"--starting-ms", "3600001"},       {"--report-ms", "9"},  {"--pm-ack-ms", "0"},
      {"--clock-ms", "1.5"},   {"--exit-when-idle", ""},           {"--reset-ms", "1 2"}, {"--storage", ""},
      {"--no-such-option", ""}};
  for (const auto& [option, value] : wrong) {
    const Outcome outcome = serve(path("q"), path("s"), {option, value});
    EXPECT_EQ(outcome.status, 2) << option << ' ' << value << ": " << outcome.output;
  }
  EXPECT_FALSE(fs::exists(path("s")));
  EXPECT_EQ(modem_sim({}).status, 2);
}

// The owner and the mode of its file restrict a path's socket; the kernel checks them.
TEST_F(ProcessTest, AnAbstractNameAdmitsThisUserAndRootUnlessOpenedToAll) {
  if (geteuid() != 0) GTEST_SKIP() << "takes another user's identity";
  setenv("PELMAR_ANY_USER", "1", 1);
  for (const bool is_open : {false, true}) {
    const ScratchDirectory directory;
    SimProcess modem(directory, is_open ? std::vector<std::string>{"--any-user"} : std::vector<std::string>{},
                     "@" + directory.path("name"));
    ASSERT_EQ(seteuid(61234), 0);
    for (int i = 0; i < 3; ++i) {
      QmuxClient client(modem.socket());
      client.send(client.request(0, 0, kSync));
      EXPECT_EQ(client.receive().message == kSync, is_open);
    }
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_NE(QmuxClient(modem.socket()).allocate(kVs), 0);
    kill(modem.process(), SIGTERM);
    const std::string report = modem.rest();
    const std::string peer = "from process " + std::to_string(getpid()) + " of user 61234";
    EXPECT_EQ(report.find(peer) != report.npos, !is_open) << report;
    EXPECT_LE(std::count(report.begin(), report.end(), '\n'), 2) << "at most one a second: " << report;
    EXPECT_EQ(modem.end(), 0);
  }
}

TEST_F(ProcessTest, EndsWhenNobodyIsConnectedForTheTimeGiven) {
  SimProcess modem(directory_, {"--exit-when-idle", "1"});
  QmuxClient client(modem.socket());
  EXPECT_NE(client.allocate(kVs), 0);
  modem.command("delay 1500 ctl 0x0021 1");
  EXPECT_EQ(client.control(kGetVersions).error(), 0) << "a connected client keeps it";
  const auto left = std::chrono::steady_clock::now();
  client.close();
  EXPECT_EQ(modem.end(0), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - left, std::chrono::milliseconds(900));
}

TEST_F(ProcessTest, IsNotReadyWhileItStarts) {
  {
    SimProcess modem(directory_, {"--starting-ms", "3600000"});
    EXPECT_EQ(QmuxClient(modem.socket()).control(kAllocate, tlv(0x01, {kVs})).error(), 52);
  }
  SimProcess modem(directory_, {"--starting-ms", "1"});
  EXPECT_TRUE(comes_true([&] { return QmuxClient(modem.socket()).allocate(kVs) != 0; }));
}

TEST_F(ProcessTest, CtlReturnsSuccessFailureAndWrongUsage) {
  SimProcess modem(directory_);
  setenv("PELMAR_SIM_CONTROL", path("another").c_str(), 1);
  const std::string storage = path("storage");
  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* output;
  } cases[] = {
      {{"ctl", "--storage", storage, "service", "sar", "down"}, 0, "service: sar\nup: false\n"},
      {{"ctl", "--control", storage + "/control", "--json", "service", "sar", "up"}, 0, "{\"ok\":true,\"service\":"},
      {{"ctl", "--storage", storage, "status"}, 0, "state: ready\n"},
      {{"ctl", "--storage", storage, "messages", "sar"}, 0, "rf-set-state (0x0001)"},
      {{"ctl", "--storage", storage, "start"}, 1, "no crash has left the modem down"},
      {{"ctl", "--storage", storage, "\x1b[1mexplode\xc2\x9b"}, 2, "unknown command '\\x1b[1mexplode\\xc2\\x9b'"},
      {{"ctl", "--storage", storage}, 2, "no command given"},
      {{"ctl", "status"}, 1, "another"},
      {{"ctl", "--storage", path("nowhere"), "status"}, 1, "cannot connect to"},
      {{"ctl", "--help"}, 0, "service SERVICE up|down"},
      {{"ctl", "--storage", storage, "quit"}, 0, "done"},
  };
  for (const auto& each : cases) {
    const Outcome outcome = modem_sim(each.arguments);
    EXPECT_EQ(outcome.status, each.status) << outcome.output;
    EXPECT_NE(outcome.output.find(each.output), std::string::npos) << outcome.output;
  }
  EXPECT_EQ(modem.end(0), 0);
}

TEST_F(ProcessTest, ALineWithoutEndDoesNotHoldCtl) {
  const UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto address = unix_address(path("socket"));
  ASSERT_EQ(bind(listener.get(), address->get(), address->length) + listen(listener.get(), 1), 0);
  std::thread modem([&] {
    const UniqueFd program(accept(listener.get(), nullptr, nullptr));
    const std::string bytes(size_t{64} << 10, ' ');
    while (send(program.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
    }
  });
  const Outcome outcome = modem_sim({"ctl", "--control", path("socket"), "status"});
  modem.join();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.output.find("is no modem's control socket"), std::string::npos) << outcome.output;
}

TEST_F(ProcessTest, TheDocumentHasEveryCommand) {
  std::ifstream file(SIMULATOR_DOCUMENT);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const std::string help = modem_sim({"ctl", "--help"}).output;
  const std::regex command("\n  ([a-z][a-z-]*(?: (?:stop|[2-5]))?) ");
  int commands = 0;
  for (std::sregex_iterator match(help.begin(), help.end(), command), end; match != end; ++match, ++commands) {
    const std::string name = '`' + (*match)[1].str();
    EXPECT_TRUE(text.find(name + '`') != text.npos || text.find(name + ' ') != text.npos) << name;
  }
  EXPECT_GE(commands, 30);
}

}  // namespace

}  // namespace pelmar::sim::test
