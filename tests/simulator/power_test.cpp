// The modem's power: votes, the events that voters get, and crashes.
#include <fstream>
#include <list>
#include <optional>

#include "manager_link.h"
#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

using namespace platform::power;

// A voter that acknowledges an event only on request.
class RawVoter {
 public:
  // With an empty name it does not register.
  RawVoter(const std::string& socket, const std::string& name) {
    EXPECT_TRUE(link_.open(socket, platform::Deadline::none()));
    EXPECT_TRUE(name.empty() || exchange(Register{"modem", name}) == 0);
  }

  bool send(const Request& request) { return link_.send(request); }
  // Returns the next reply; nothing if the manager has closed the connection or none arrives within a minute.
  std::optional<Reply> next() {
    Reply reply;
    const auto limit = platform::Deadline::after(platform::Deadline::Milliseconds(60'000));
    return link_.receive(reply, limit) ? std::optional(reply) : std::nullopt;
  }

  // Sends a request and returns its result. Events before the response are kept.
  int exchange(const Request& request) {
    send(request);
    for (auto reply = next(); reply; reply = next()) {
      if (const auto* const response = std::get_if<VoterResponse>(&*reply)) return response->result;
      events_.push_back(std::get<Event>(*reply).event);
    }
    return -99;
  }

  // Expects these events, and acknowledges each.
  void pass(const std::vector<int>& events) {
    for (const int event : events) {
      ASSERT_EQ(this->event(), event);
      acknowledge(event);
    }
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

  // The manager sends its events after the first request at the latest, so before its second response.
  bool has_no_event() {
    for (int i = 0; i < 2; ++i) EXPECT_EQ(exchange(Register{"modem", "again"}), -1);
    return events_.empty();
  }

 private:
  ManagerLink link_;
  std::list<int> events_;
};

class Power : public SimulatorTest {
 protected:
  // The acknowledgement timeout is an hour, so that a test that waits for it in error reaches its own time limit.
  Power() : SimulatorTest({"--pm-socket", "--pm-ack-ms", "3600000"}) {}

  nlohmann::json state() const { return status("/state"); }

  const std::string manager_ = path("qmux.pm");
};

TEST_F(Power, EachStepWaitsForEveryVoter) {
  RawVoter first(manager_, "first");
  RawVoter second(manager_, "second");
  EXPECT_EQ(first.exchange(Vote{}), 0);
  first.pass({2});
  EXPECT_TRUE(first.has_no_event());
  EXPECT_EQ(state(), "off") << "the second has not acknowledged";
  second.pass({2});
  first.pass({3});
  EXPECT_EQ(state(), "ready");
  EXPECT_EQ(second.exchange(Vote{}), 0);
  for (RawVoter* voter : {&first, &second}) EXPECT_EQ(voter->exchange(Withdraw{}), 0);
  EXPECT_EQ(second.event(), 3);
  second.acknowledge(2);
  EXPECT_TRUE(second.has_no_event()) << "power-on ends first, and a late acknowledgement has no effect";
  second.acknowledge(3);
  second.pass({0});
  EXPECT_EQ(state(), "ready");
  first.pass({0, 1});
  EXPECT_EQ(state(), "off");
}

TEST_F(Power, AVoterThatLeavesLosesItsVoteAndIsNotWaitedFor) {
  RawVoter watcher(manager_, "watcher");
  for (const bool unregisters : {true, false}) {
    RawVoter silent(manager_, "silent");
    silent.exchange(Vote{});
    watcher.pass({2});
    if (!unregisters) break;
    EXPECT_EQ(silent.exchange(Unregister{}) + silent.exchange(Vote{}), -1);
    watcher.pass({3, 0, 1});
  }
  watcher.pass({3, 0, 1});
}

TEST(PowerTimeout, ContinuesWithoutAVoterThatDoesNotAcknowledge) {
  const ScratchDirectory directory;
  const SimProcess modem(directory, {"--pm-socket", "--pm-ack-ms", "50"});
  RawVoter silent(modem.socket() + ".pm", "silent");
  RawVoter voter(modem.socket() + ".pm", "voter");
  voter.exchange(Vote{});
  voter.pass({2, 3});
  voter.exchange(Withdraw{});
  voter.pass({0, 1});
  for (const int event : {2, 3, 0, 1}) EXPECT_EQ(silent.event(), event);
}

TEST_F(Power, RefusesInvalidRequestsAndDropsPeersThatBreakTheProtocol) {
  RawVoter voter(manager_, "");
  for (const Request& request : {Request(Vote{}), Request(Withdraw{}), Request(Unregister{})}) {
    EXPECT_EQ(voter.exchange(request), -1) << "it is not registered";
  }
  EXPECT_EQ(voter.exchange(Register{std::string(63, ' '), "voter"}), -2) << "a good name of another device";
  voter.send(Register{"modem", "voter"});
  EXPECT_EQ(voter.next(), Reply(VoterResponse{0, EVENT_PERIPH_IS_OFFLINE}));
  EXPECT_EQ(voter.exchange(Register{"modem", "again"}), -1);
  EXPECT_EQ(voter.exchange(Withdraw{}), 0) << "withdrawing without a vote succeeds";
  voter.send(QueryStatus{});
  EXPECT_EQ(voter.next(), Reply(Status{EVENT_PERIPH_IS_OFFLINE, 1}));
  EXPECT_EQ(voter.next(), Reply(VoterEntry{static_cast<uint32_t>(getpid()), false, "voter"}));
  const Bytes broken[] = {{0},
                          {1, 0x07},
                          {1, 0x81},
                          {2, 0x02, 0},
                          {2, 0x05, 4},
                          {6, 0x01, 1, 1, 'm', 9, 'v'},
                          {6, 0x01, 2, 1, 'm', 1, 'v'},
                          {6, 0x01, 1, 1, 'm', 1, '\n'},
                          {5, 0x01, 1, 1, 'm', 0},
                          Bytes(256, 0xFF)};
  for (const Bytes& bytes : broken) {
    QmuxClient peer(manager_);
    peer.send(bytes);
    EXPECT_TRUE(peer.is_closed_by_modem()) << bytes.size() << " bytes, kind " << int{bytes[bytes.size() > 1]};
  }
}

TEST(Crash, RestartsTheModemOrWritesADumpAndStaysDown) {
  const ScratchDirectory directory;
  setenv("PELMAR_PROPERTY_DIR", directory.path("properties").c_str(), 1);
  std::filesystem::create_directories(directory.path("properties/persist"));
  const SimProcess modem(directory, {"--reset-ms", "1"});
  for (const bool restarts : {false, true}) {
    std::ofstream(directory.path("properties/persist/persist.vendor.ssr.restart_level"))
        << (restarts ? "ALL_ENABLE" : "ALL_DISABLE");
    QmuxClient client(modem.socket(), kVs);
    const auto crash = modem.value("crash", "");
    EXPECT_EQ(client.receive().message, kSync);
    EXPECT_EQ(crash.at("restarts"), restarts);
    if (restarts) continue;
    EXPECT_GT(std::filesystem::file_size(directory.path("storage/dumps/modem-1.txt")), 100u);
    EXPECT_EQ(client.allocate(kVs), 0);
    modem.command("start");
  }
  EXPECT_TRUE(wait_until([&] { return QmuxClient(modem.socket()).allocate(kVs) != 0; }));
}

}  // namespace

}  // namespace pelmar::sim::test
