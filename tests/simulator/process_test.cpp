// The program: how it starts, how it ends, and how the operator talks to it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <system_error>
#include <thread>

#include "io/local_socket.h"
#include "qmux_client.h"
#include "sim_process.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;

TEST(Process, SignalsEndItAndItsSocketFiles) {
  for (const int signal : {SIGINT, SIGTERM}) {
    ScratchDirectory directory;
    SimProcess modem(directory);
    EXPECT_TRUE(fs::exists(modem.socket()));
    EXPECT_EQ(modem.end(signal), 0);
    EXPECT_FALSE(fs::exists(modem.socket()));
    EXPECT_FALSE(fs::exists(directory.path("storage/control")));
  }
}

TEST(Process, SocketsOfADeadModemAreReplacedAndThoseOfALiveOneRefused) {
  ScratchDirectory directory;
  {
    SimProcess modem(directory);
    EXPECT_EQ(modem.end(SIGKILL), -SIGKILL);
    EXPECT_TRUE(fs::exists(modem.socket()));
  }
  SimProcess modem(directory);
  const Outcome same_socket =
      run_program({MODEM_SIM, "serve", "--socket", modem.socket(), "--storage", directory.path("other")});
  EXPECT_EQ(same_socket.status, 1);
  EXPECT_NE(same_socket.output.find("another process serves socket"), std::string::npos) << same_socket.output;
  const Outcome same_storage =
      run_program({MODEM_SIM, "serve", "--socket", directory.path("q2"), "--storage", directory.path("storage")});
  EXPECT_EQ(same_storage.status, 1);
  EXPECT_NE(same_storage.output.find("in use by another modem_sim"), std::string::npos) << same_storage.output;
  EXPECT_NE(QmuxClient(modem.socket()).allocate(0xE4), 0) << "the live one is not disturbed";

  const Outcome a_file = run_program({MODEM_SIM, "serve", "--socket", MODEM_SIM, "--storage", directory.path("other")});
  EXPECT_EQ(a_file.status, 1);
  EXPECT_NE(a_file.output.find("is no socket"), std::string::npos) << a_file.output;
  EXPECT_TRUE(fs::exists(MODEM_SIM));
}

TEST(Process, AbstractNamesWorkToo) {
  ScratchDirectory directory;
  const std::string name = "@" + directory.path("name");
  EventLoop loop;
  const LocalListener first(loop, name, [](UniqueFd) {});
  EXPECT_TRUE(connect_local(name));
  EXPECT_THROW(LocalListener(loop, name, [](UniqueFd) {}), std::runtime_error);
}

TEST(Process, AConnectionThatCannotBeServedEndsAlone) {
  ScratchDirectory directory;
  EventLoop loop;
  int accepted = 0;
  const LocalListener listener(loop, directory.path("socket"), [&](UniqueFd) {
    if (++accepted == 1) throw std::bad_alloc();
    if (accepted == 2) throw std::system_error(ESRCH, std::generic_category());
    loop.stop();
  });
  const UniqueFd clients[] = {connect_local(listener.name()), connect_local(listener.name()),
                              connect_local(listener.name())};
  loop.run();
  EXPECT_EQ(accepted, 3);
}

TEST(Process, ALineWithoutEndDoesNotHoldTheOperatorsProgram) {
  ScratchDirectory directory;
  EventLoop loop;
  const LocalListener listener(loop, directory.path("socket"), [&](UniqueFd operator_program) {
    const std::string bytes(size_t{64} << 10, ' ');
    while (send(operator_program.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
    }
    loop.stop();
  });
  std::thread modem([&] { loop.run(); });
  const Outcome outcome = run_program({MODEM_SIM, "ctl", "--control", listener.name(), "status"});
  modem.join();
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.output.find("is no modem's operator socket"), std::string::npos) << outcome.output;
}

TEST(Process, OptionsThatAreWrongEndItWithStatusTwo) {
  ScratchDirectory directory;
  const char* const wrong[][2] = {
      {"--seed", "-1"},        {"--seed", "18446744073709551616"}, {"--seed", "1x"},      {"--max-entries", "-1"},
      {"--reset-ms", "-5"},    {"--starting-ms", "3600001"},       {"--report-ms", "9"},  {"--pm-ack-ms", "0"},
      {"--clock-ms", "1.5"},   {"--exit-when-idle", ""},           {"--reset-ms", "1 2"}, {"--storage", ""},
      {"--no-such-option", ""}};
  for (const auto& [option, value] : wrong) {
    const Outcome outcome = run_program({MODEM_SIM, "serve", "--storage", directory.path("s"), option, value});
    EXPECT_EQ(outcome.status, 2) << option << ' ' << value << ": " << outcome.output;
  }
  EXPECT_FALSE(fs::exists(directory.path("s")));
  EXPECT_EQ(run_program({MODEM_SIM}).status, 2);
}

TEST(Process, AnAbstractNameAdmitsThisUserAndRootUnlessOpenedToAll) {
  if (geteuid() != 0) GTEST_SKIP() << "takes another user's identity";
  ScratchDirectory directory;
  const struct {
    uid_t listener, caller;
    Admission admission;
    int accepted;
  } cases[] = {
      {0, 61234, Admission::kThisUserAndRoot, 0},
      {0, 61234, Admission::kEveryUser, 1},
      {61234, 61234, Admission::kThisUserAndRoot, 1},
  };
  for (const auto& each : cases) {
    int accepted = 0;
    EventLoop loop;
    const LocalListener listener(
        loop, "@" + directory.path("name"), [&](UniqueFd) { ++accepted; }, each.admission);
    ASSERT_EQ(seteuid(each.caller), 0);
    const UniqueFd caller = connect_local(listener.name());
    ASSERT_EQ(seteuid(0) + seteuid(each.listener), 0);
    testing::internal::CaptureStderr();
    loop.after({}, [&] { loop.stop(); });
    loop.run();
    const std::string report = testing::internal::GetCapturedStderr();
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(accepted, each.accepted);
    const std::string peer = "process " + std::to_string(getpid()) + " of user 61234";
    EXPECT_EQ(report.find(peer) != std::string::npos, each.accepted == 0) << report;
    EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), each.accepted == 0 ? 1 : 0) << report;
  }
}

TEST(Process, EndsWhenNobodyIsConnectedForTheTimeGiven) {
  ScratchDirectory directory;
  SimProcess modem(directory, {"--exit-when-idle", "2"});
  std::chrono::steady_clock::time_point left;
  {
    QmuxClient client(modem.socket());
    EXPECT_FALSE(client.is_closed_by_modem(3000)) << "a connected client keeps it";
    left = std::chrono::steady_clock::now();
  }
  EXPECT_EQ(modem.end(0), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - left, std::chrono::milliseconds(1900));
}

TEST(Process, IsNotReadyWhileItStarts) {
  ScratchDirectory directory;
  SimProcess modem(directory, {"--starting-ms", "2000"});
  QmuxClient client(modem.socket());
  EXPECT_EQ(client.control(0x0022, tlv(0x01, {0xE4})).error(), 52);
  EXPECT_TRUE(comes_true([&] { return client.allocate(0xE4) != 0; }));
}

TEST(Process, TheOperatorsProgramTellsSuccessFromFailureAndWrongUsage) {
  ScratchDirectory directory;
  SimProcess modem(directory);
  setenv("PELMAR_SIM_CONTROL", directory.path("another").c_str(), 1);
  const std::string storage = directory.path("storage");
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
      {{"ctl", "--storage", storage, "restart", "-1"}, 2, "'-1' is no MS"},
      {{"ctl", "--storage", storage, "silence", "nas", "x"}, 2, "register-indications, "},
      {{"ctl", "--storage", storage}, 2, "no command given"},
      {{"ctl", "status"}, 1, "another"},
      {{"ctl", "--storage", directory.path("nowhere"), "status"}, 1, "cannot connect to"},
      {{"ctl", "--help"}, 0, "service SERVICE up|down"},
      {{"ctl", "--storage", storage, "quit"}, 0, "done"},
  };
  for (const auto& each : cases) {
    std::vector<std::string> arguments = {MODEM_SIM};
    arguments.insert(arguments.end(), each.arguments.begin(), each.arguments.end());
    const Outcome outcome = run_program(arguments);
    EXPECT_EQ(outcome.status, each.status) << outcome.output;
    EXPECT_NE(outcome.output.find(each.output), std::string::npos) << outcome.output;
  }
  unsetenv("PELMAR_SIM_CONTROL");
  EXPECT_EQ(modem.end(0), 0);
}

}  // namespace

}  // namespace pelmar::sim::test
