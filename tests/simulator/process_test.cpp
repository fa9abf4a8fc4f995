// The program: its start and end, the users that it admits, and the commands of ctl.
#include <fcntl.h>
#include <signal.h>

#include <fstream>

#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;

TEST(Program, SignalsRemoveItsSocketFilesAndLeftOverOnesAreReplaced) {
  const ScratchDirectory directory;
  for (const int signal : {SIGKILL, SIGINT, SIGTERM}) {
    SimProcess modem(directory);
    EXPECT_EQ(modem.end(signal), signal == SIGKILL ? -SIGKILL : 0);
    for (const char* file : {"qmux", "storage/control"}) {
      EXPECT_EQ(fs::exists(directory.path(file)), signal == SIGKILL) << file;
    }
  }
}

TEST(Program, ItEndsWhenNoProgramHasItsDeviceOpen) {
  const ScratchDirectory directory;
  SimProcess modem(directory, {"--device", directory.path("device"), "--exit-when-idle", "1"});
  {
    const UniqueFd program(open(directory.path("device").c_str(), O_RDWR | O_NOCTTY));
    const Bytes sync = {0x01, 0x0B, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x27, 0x00, 0x00, 0x00};
    EXPECT_EQ(write(program.get(), sync.data(), sync.size()), static_cast<ssize_t>(sync.size()));
    EXPECT_TRUE(wait_until([&] { return modem.value("status", "/counters/requests") == 1; }));
  }
  EXPECT_EQ(modem.end(), 0);
}

using ProcessTest = SimulatorTest;

TEST_F(ProcessTest, InvalidOptionsAndUsedPathsAreRefused) {
  const std::string abstract = "@" + path("name");
  const ScratchDirectory other;
  const SimProcess on_abstract(other, {"--device", path("device")}, abstract);
  expect_end({"serve", "--socket", socket_, "--storage", path("other")}, 1, "another process serves socket");
  expect_end({"serve", "--socket", abstract, "--storage", path("other")}, 1, "another process serves socket");
  expect_end({"serve", "--socket", path("q2"), "--storage", path("storage")}, 1, "in use by another modem_sim");
  expect_end({"serve", "--socket", path("q2"), "--storage", path("other"), "--device", path("device")}, 1,
             "another modem_sim serves the device");
  expect_end({"serve", "--socket", MODEM_SIM, "--storage", path("other")}, 1, "is no socket");
  expect_end({"serve", "--socket", path("q2"), "--storage", path("other"), "--reset-ms", "-5"}, 2, "--reset-ms");
  expect_end({"scenario", path("")}, 1, "modem_sim: cannot read '" + path("") + "': Is a directory\n");
  EXPECT_TRUE(fs::exists(MODEM_SIM));
  EXPECT_NE(QmuxClient(socket_).allocate(kVs), 0) << "the running modem is not affected";
}

// The scenario is larger than the buffer of the standard output.
TEST_F(ProcessTest, OutputThatCannotBeWrittenIsAFailure) {
  std::ofstream recording(path("a.csv"));
  recording << "time,sub,carrier,gain_gsm_0\n";
  for (int i = 1000; i < 2000; ++i) recording << "2026-01-01T00:00:00." << i % 1000 << "Z,0,," << -i % 100 << '\n';
  recording.close();
  for (const std::string arguments : {"--version", "scenario a.csv", "ctl --storage storage status"}) {
    const std::string line = "cd " + path("") + "; " MODEM_SIM " " + arguments;
    EXPECT_EQ(run_program({"/bin/sh", "-c", line}).status, 0);
    const Outcome outcome = run_program({"/bin/sh", "-c", line + " >/dev/full"});
    EXPECT_EQ(outcome.status, 1) << arguments;
    EXPECT_EQ(outcome.output, "modem_sim: cannot write to standard output: No space left on device\n");
  }
}

// For a socket at a path the kernel checks the owner and the mode of the file.
TEST(Program, AnAbstractNameAdmitsThisUserAndRootUnlessOpenedToAll) {
  if (geteuid() != 0) GTEST_SKIP() << "takes another user's identity";
  setenv("PELMAR_ANY_USER", "1", 1);
  for (const bool is_open : {false, true}) {
    const ScratchDirectory directory;
    const SimProcess modem(directory, {is_open ? "--any-user" : "--seed=1"}, "@" + directory.path("name"));
    ASSERT_EQ(seteuid(61234), 0);
    QmuxClient client(modem.socket());
    client.send(client.request(kSync));
    EXPECT_EQ(client.receive().message == kSync, is_open);
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_NE(QmuxClient(modem.socket()).allocate(kVs), 0);
  }
}

TEST_F(ProcessTest, CtlReturnsAStatusForSuccessFailureAndWrongUsage) {
  const std::string storage = path("storage");
  expect_end({"ctl", "--storage", storage, "service", "sar", "down"}, 0, "service: sar\nup: false\n");
  expect_end({"ctl", "--control", storage + "/control", "--json", "status"}, 0, "{\"ok\":true,\"state\":");
  expect_end({"ctl", "--storage", storage, "start"}, 1, "no crash has left the modem down");
  expect_end({"ctl", "--storage", storage, "\x1b[1mexplode"}, 2, "unknown command '\\x1b[1mexplode'");
  expect_end({"ctl", "--storage", path("nowhere"), "status"}, 1, "cannot connect to");
  expect_end({"ctl", "--storage", storage, "quit"}, 0, "done");
  EXPECT_EQ(modem_.end(0), 0);
}

}  // namespace

}  // namespace pelmar::sim::test
