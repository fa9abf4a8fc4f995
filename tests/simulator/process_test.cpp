// The program: how it starts and ends, whom it admits, and the commands of ctl.
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <thread>

#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;

// Runs modem_sim to its end.
void expect(const std::vector<std::string>& arguments, int status, const std::string& text) {
  std::vector<std::string> all = {MODEM_SIM};
  all.insert(all.end(), arguments.begin(), arguments.end());
  const Outcome outcome = run_program(all);
  EXPECT_EQ(outcome.status, status) << outcome.output;
  EXPECT_NE(outcome.output.find(text), std::string::npos) << outcome.output;
}

TEST(Program, SignalsEndItWithItsSocketFilesAndThoseOfAKilledOneAreReplaced) {
  const ScratchDirectory directory;
  for (const int signal : {SIGKILL, SIGINT, SIGTERM}) {
    SimProcess modem(directory);
    EXPECT_EQ(modem.end(signal), signal == SIGKILL ? -SIGKILL : 0);
    for (const char* file : {"qmux", "storage/control"}) {
      EXPECT_EQ(fs::exists(directory.path(file)), signal == SIGKILL) << file;
    }
  }
}

using ProcessTest = SimulatorTest;

TEST_F(ProcessTest, WhatALiveModemServesIsRefused) {
  const std::string abstract = "@" + path("name");
  const ScratchDirectory other;
  const SimProcess on_abstract(other, {}, abstract);
  expect({"serve", "--socket", socket_, "--storage", path("other")}, 1, "another process serves socket");
  expect({"serve", "--socket", abstract, "--storage", path("other")}, 1, "another process serves socket");
  expect({"serve", "--socket", path("q2"), "--storage", path("storage")}, 1, "in use by another modem_sim");
  expect({"serve", "--socket", MODEM_SIM, "--storage", path("other")}, 1, "is no socket");
  EXPECT_TRUE(fs::exists(MODEM_SIM));
  EXPECT_NE(QmuxClient(socket_).allocate(kVs), 0) << "the live one is not disturbed";
}

TEST(Program, WrongOptionsEndItWithStatusTwo) {
  const ScratchDirectory directory;
  const std::string storage = directory.path("s");
  const char* const wrong[][2] = {
      {"--seed", "-1"},        {"--seed", "18446744073709551616"}, {"--seed", "1x"},      {"--max-entries", "-1"},
      {"--reset-ms", "-5"},    {"--starting-ms", "3600001"},       {"--report-ms", "9"},  {"--pm-ack-ms", "0"},
      {"--clock-ms", "1.5"},   {"--exit-when-idle", ""},           {"--reset-ms", "1 2"}, {"--storage", ""},
      {"--no-such-option", ""}};
  for (const auto& [option, value] : wrong) {
    expect({"serve", "--socket", directory.path("q"), "--storage", storage, option, value}, 2, option);
  }
  EXPECT_FALSE(fs::exists(storage));
  expect({}, 2, "subcommand is required");
  expect({"serve", "--storage", storage, "--socket", directory.path("q"), "--scenario", "/none"}, 1, "no such file");
}

// The owner and the mode of its file restrict a path's socket; the kernel checks them.
TEST(Program, AnAbstractNameAdmitsThisUserAndRootUnlessOpenedToAll) {
  if (geteuid() != 0) GTEST_SKIP() << "takes another user's identity";
  setenv("PELMAR_ANY_USER", "1", 1);
  for (const bool is_open : {false, true}) {
    const ScratchDirectory directory;
    SimProcess modem(directory, {is_open ? "--any-user" : "--seed=1"}, "@" + directory.path("name"));
    ASSERT_EQ(seteuid(61234), 0);
    for (int i = 0; i < 3; ++i) {
      QmuxClient client(modem.socket());
      client.send(client.request(kSync));
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

TEST(Program, StartsForAsLongAndEndsWhenIdleForAsLongAsItsOptionsSay) {
  const ScratchDirectory directory;
  EXPECT_EQ(SimProcess(directory, {"--starting-ms", "3600000"}).value("status", "/state"), "starting");
  SimProcess modem(directory, {"--starting-ms", "1", "--exit-when-idle", "1"});
  QmuxClient client(modem.socket());
  EXPECT_TRUE(comes_true([&] { return client.allocate(kVs) != 0; }));
  modem.command("delay 1500 ctl 0x0021 1");
  EXPECT_EQ(client.ask(kGetVersions).error(), 0) << "a connected client keeps it";
  const auto left = std::chrono::steady_clock::now();
  client.close();
  EXPECT_EQ(modem.end(0), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - left, std::chrono::milliseconds(900));
}

TEST_F(ProcessTest, CtlReturnsSuccessFailureAndWrongUsage) {
  setenv("PELMAR_SIM_CONTROL", path("another").c_str(), 1);
  const std::string storage = path("storage");
  expect({"ctl", "--storage", storage, "service", "sar", "down"}, 0, "service: sar\nup: false\n");
  expect({"ctl", "--control", storage + "/control", "--json", "status"}, 0, "{\"ok\":true,\"state\":");
  expect({"ctl", "--storage", storage, "messages", "sar"}, 0, "rf-set-state (0x0001)");
  expect({"ctl", "--storage", storage, "start"}, 1, "no crash has left the modem down");
  expect({"ctl", "--storage", storage, "\x1b[1mexplode\xc2\x9b"}, 2, "unknown command '\\x1b[1mexplode\\xc2\\x9b'");
  expect({"ctl", "--storage", storage}, 2, "no command given");
  expect({"ctl", "status"}, 1, "another");
  expect({"ctl", "--storage", path("nowhere"), "status"}, 1, "cannot connect to");
  expect({"ctl", "--storage", storage, "quit"}, 0, "done");
  EXPECT_EQ(modem_.end(0), 0);
}

TEST(Program, ALineWithoutEndDoesNotHoldCtl) {
  const ScratchDirectory directory;
  const std::string name = directory.path("socket");
  const UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto address = unix_address(name);
  ASSERT_EQ(bind(listener.get(), address->get(), address->length) + listen(listener.get(), 1), 0);
  std::thread modem([&] {
    const UniqueFd program(accept(listener.get(), nullptr, nullptr));
    const std::string bytes(size_t{64} << 10, ' ');
    while (send(program.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
    }
  });
  expect({"ctl", "--control", name, "status"}, 1, "is no modem's control socket");
  modem.join();
}

TEST(Program, TheDocumentHasEveryCommand) {
  std::ifstream file(SIMULATOR_DOCUMENT);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const std::string help = run_program({MODEM_SIM, "ctl", "--help"}).output;
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
