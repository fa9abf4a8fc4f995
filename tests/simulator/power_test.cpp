// The modem's power: votes, the events that voters get, and crashes.
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <optional>

#include "manager_link.h"
#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;
using namespace platform::power;

// A voter that acknowledges nothing by itself.
class RawVoter {
 public:
  explicit RawVoter(const std::string& socket) { EXPECT_TRUE(link_.open(socket, platform::Deadline::none())); }
  RawVoter(const std::string& socket, const std::string& name) : RawVoter(socket) {
    EXPECT_EQ(ask(Register{"modem", name}), 0);
  }

  bool send(const Request& request) { return link_.send(request); }
  // The next reply; nothing where the manager has closed the connection, or none comes within a minute.
  std::optional<Reply> next() {
    Reply reply;
    const auto limit = platform::Deadline::after(platform::Deadline::Milliseconds(60'000));
    return link_.receive(reply, limit) ? std::optional(reply) : std::nullopt;
  }

  // The result of a request; events that come before are kept.
  int ask(const Request& request) {
    send(request);
    for (auto reply = next(); reply; reply = next()) {
      if (const auto* const response = std::get_if<VoterResponse>(&*reply)) return response->result;
      events_.push_back(std::get<Event>(*reply).event);
    }
    return -99;
  }

  int event() {
    if (!events_.empty()) {
      const int first = events_.front();
      events_.pop_front();
      return first;
    }
    const auto reply = next();
    return reply && std::holds_alternative<Event>(*reply) ? std::get<Event>(*reply).event : -1;
  }
  void acknowledge(int event) { send(Acknowledge{static_cast<pm_event>(event)}); }

  // The manager would have sent an event before its second response: it acts after the first request at the latest.
  bool has_no_event() {
    for (int i = 0; i < 2; ++i) EXPECT_EQ(ask(Register{"modem", "again"}), -1);
    return events_.empty();
  }

 private:
  ManagerLink link_;
  std::list<int> events_;
};

class Power : public SimulatorTest {
 protected:
  // An acknowledgement has an hour: a test that waits for it ends by its own limit.
  explicit Power(const std::string& acknowledge_ms = "3600000")
      : SimulatorTest({"--pm-socket", "--pm-ack-ms", acknowledge_ms}) {}

  nlohmann::json state() const { return status("/state"); }
  // The events come to all voters in this order, and each acknowledges each.
  static void pass(const std::vector<RawVoter*>& voters, const std::vector<int>& events) {
    for (const int event : events) {
      for (RawVoter* const voter : voters) {
        ASSERT_EQ(voter->event(), event);
        voter->acknowledge(event);
      }
    }
  }
  void expect_refused(const std::string& command, const char* reason) {
    EXPECT_NE(modem_.refused_command(command).find(reason), std::string::npos) << command;
  }

  const std::string manager_ = path("qmux.pm");
};

TEST_F(Power, EachStepWaitsForEveryVoter) {
  RawVoter first(manager_, "first");
  RawVoter second(manager_, "second");
  EXPECT_EQ(state(), "off");
  EXPECT_EQ(first.ask(Vote{}), 0);
  pass({&first}, {2});
  EXPECT_TRUE(first.has_no_event());
  EXPECT_EQ(state(), "off") << "the second has not acknowledged";
  pass({&second}, {2});
  pass({&first}, {3});
  EXPECT_EQ(state(), "ready");
  EXPECT_EQ(second.ask(Vote{}), 0);
  for (RawVoter* voter : {&first, &second}) EXPECT_EQ(voter->ask(Withdraw{}), 0);
  EXPECT_EQ(second.event(), 3);
  second.acknowledge(2);
  EXPECT_TRUE(second.has_no_event()) << "the way up ends first; a late acknowledgement counts for nothing";
  second.acknowledge(3);
  pass({&second}, {0});
  EXPECT_EQ(state(), "ready");
  pass({&first}, {0});
  pass({&first, &second}, {1});
  EXPECT_EQ(state(), "off");
}

TEST_F(Power, AVoterThatLeavesIsWaitedForNoMore) {
  RawVoter watcher(manager_, "watcher");
  RawVoter silent(manager_, "silent");
  silent.ask(Vote{});
  pass({&watcher}, {2});
  EXPECT_EQ(silent.ask(Unregister{}), 0);
  pass({&watcher}, {3, 0, 1});
  EXPECT_EQ(silent.ask(Vote{}), -1);
}

// Here with this process as the heir of its connection, before it was accepted and after its vote.
TEST_F(Power, AVoteEndsWithItsProcess) {
  const auto address = unix_address(manager_);
  const Bytes requests = to_frame(Request(Register{"modem", "dead"})) + to_frame(Request(Vote{}));
  for (const bool is_accepted : {false, true}) {
    const UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!is_accepted) kill(modem_.process(), SIGSTOP);
    const pid_t child = fork();
    if (child == 0) {
      const bool is_connected = connect(fd.get(), address->get(), address->length) == 0;
      const bool has_sent = is_connected && send(fd.get(), requests.data(), requests.size(), 0) > 0;
      uint8_t responses[8];
      _exit(has_sent && (!is_accepted || recv(fd.get(), responses, sizeof responses, MSG_WAITALL) == 8) ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    kill(modem_.process(), SIGCONT);
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(comes_true([&] { return modem_.value("power", "/manager/voters").empty(); })) << is_accepted;
    EXPECT_EQ(modem_.value("power", "/manager/votes"), 0);
  }
}

class ImpatientPower : public Power {
 protected:
  ImpatientPower() : Power("50") {}
};

TEST_F(ImpatientPower, GoesOnWithoutAVoterThatDoesNotAcknowledge) {
  RawVoter silent(manager_, "silent");
  RawVoter voter(manager_, "voter");
  voter.ask(Vote{});
  pass({&voter}, {2, 3});
  voter.ask(Withdraw{});
  pass({&voter}, {0, 1});
  for (const int event : {2, 3, 0, 1}) EXPECT_EQ(silent.event(), event);
  EXPECT_GE(modem_.value("power", "/manager/overdue_acknowledgements"), 3);
}

TEST_F(Power, RefusesWhatItCannotDoAndDropsPeersThatBreakTheProtocol) {
  RawVoter voter(manager_);
  for (const Request& request : {Request(Vote{}), Request(Withdraw{}), Request(Unregister{})}) {
    EXPECT_EQ(voter.ask(request), -1) << "nobody is registered";
  }
  EXPECT_EQ(voter.ask(Register{"toaster", "voter"}), -2);
  voter.send(Register{"modem", "voter"});
  EXPECT_EQ(voter.next(), Reply(VoterResponse{0, EVENT_PERIPH_IS_OFFLINE}));
  EXPECT_EQ(voter.ask(Register{"modem", "again"}), -1);
  EXPECT_EQ(voter.ask(Withdraw{}), 0) << "taking back no vote succeeds";
  voter.send(QueryStatus{});
  EXPECT_EQ(voter.next(), Reply(Status{EVENT_PERIPH_IS_OFFLINE, 1}));
  EXPECT_EQ(voter.next(), Reply(VoterEntry{static_cast<uint32_t>(getpid()), false, "voter"}));
  const Bytes broken[] = {{0},
                          {1, 0x07},
                          {1, 0x81},
                          {2, 0x02, 0},
                          {2, 0x05, 4},
                          {4, 0x01, 2, 1, 'm'},
                          {6, 0x01, 1, 1, 'm', 1, '\n'},
                          {5, 0x01, 1, 1, 'm', 0},
                          Bytes(256, 0xFF)};
  for (const Bytes& bytes : broken) {
    QmuxClient peer(manager_);
    peer.send(bytes);
    EXPECT_TRUE(peer.is_closed_by_modem()) << bytes.size() << " bytes, kind " << int{bytes[bytes.size() > 1]};
  }
}

TEST_F(Power, ConnectionsAndTheOutputThatWaitsForThemAreBounded) {
  std::list<RawVoter> peers;
  for (int i = 0; i < 64; ++i) peers.emplace_back(manager_);
  EXPECT_EQ(peers.front().ask(Register{"modem", "voter"}), 0);
  EXPECT_TRUE(QmuxClient(manager_).is_closed_by_modem());
  // So many requests that their responses fill the socket, and then the manager's room.
  int sent = 0;
  while (sent < 1'000'000 && peers.back().send(QueryStatus{})) ++sent;
  EXPECT_LT(sent, 1'000'000);
  EXPECT_EQ(state(), "off") << "the modem still serves";
}

TEST_F(Power, WithoutItTheModemHasNoServicesAndNewPowerStartsACrashedModem) {
  RawVoter voter(manager_, "voter");
  QmuxClient client(socket_);
  EXPECT_EQ(client.ask(kAllocate, tlv(0x01, {kVs})).error(), 52);
  EXPECT_EQ(client.ask(kGetVersions).value(0x01).at(0), 1) << "the control service alone";
  expect_refused("start", "no crash");
  voter.ask(Vote{});
  pass({&voter}, {2, 3});
  const uint8_t id = client.allocate(kVs);
  ASSERT_NE(id, 0);
  voter.ask(Withdraw{});
  pass({&voter}, {0});
  EXPECT_EQ(client.receive().message, kSync) << "all ids are void";
  EXPECT_EQ(client.ask_as(kVs, id, kPassThrough).error(), 52);
  for (const char* command : {"restart", "crash"}) expect_refused(command, "is off");
  pass({&voter}, {1});
  voter.ask(Vote{});
  pass({&voter}, {2, 3});
  modem_.command("crash");
  EXPECT_EQ(state(), "off");
  voter.ask(Withdraw{});
  pass({&voter}, {0, 1});
  voter.ask(Vote{});
  pass({&voter}, {2, 3});
  EXPECT_EQ(state(), "ready");
  expect_refused("start", "no crash");
}

TEST(Crash, RestartsAloneOrLeavesADumpAndStaysDown) {
  const ScratchDirectory directory;
  setenv("PELMAR_PROPERTY_DIR", directory.path("properties").c_str(), 1);
  fs::create_directories(directory.path("properties/persist"));
  const SimProcess modem(directory, {"--reset-ms", "1"});
  const std::pair<const char*, bool> cases[] = {
      {"", false}, {"ALL_ENABLE", true}, {"ALL_DISABLE", false}, {"related", false}, {"ALL_ENABLE", true}};
  size_t dumps = 0;
  for (const auto& [level, restarts] : cases) {
    SCOPED_TRACE(level);
    std::ofstream(directory.path("properties/persist/persist.vendor.ssr.restart_level")) << level;
    QmuxClient client(modem.socket());
    ASSERT_TRUE(comes_true([&] { return client.allocate(kVs) != 0; }));
    const auto crash = modem.value("crash", "");
    EXPECT_EQ(client.receive().message, kSync);
    EXPECT_EQ(crash.at("restarts"), restarts);
    if (restarts) continue;
    const std::string dump = directory.path("storage/dumps/modem-" + std::to_string(++dumps) + ".txt");
    EXPECT_EQ(crash.at("dump"), dump);
    EXPECT_GT(fs::file_size(dump), 100u);
    EXPECT_EQ(client.allocate(kVs), 0);
    EXPECT_EQ(modem.value("status", "/state"), "off");
    modem.command("start");
  }
}

}  // namespace

}  // namespace pelmar::sim::test
