// The modem's power: votes, the steps that voters are told of, and crashes.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>

#include "io/local_socket.h"
#include "manager_protocol.h"
#include "qmux_client.h"
#include "sim_process.h"
#include "unix_address.h"

namespace pelmar::sim::test {

namespace {

namespace fs = std::filesystem;
using namespace platform::power;

constexpr uint8_t kVs = 0xE4;
constexpr int kPatienceMs = 60'000;
constexpr int kSilenceMs = 100;

// One end of a connection to the manager, which acknowledges nothing by itself.
class RawVoter {
 public:
  explicit RawVoter(UniqueFd fd) : fd_(std::move(fd)) {}
  explicit RawVoter(const std::string& socket) : fd_(connect_local(socket)) {}
  RawVoter(const std::string& socket, const std::string& name) : RawVoter(socket) {
    EXPECT_EQ(ask(Register{"modem", name}), 0);
  }

  // False once the manager has closed the connection.
  bool send(const Bytes& bytes) { return ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0; }
  void send(const Request& request) { send(to_frame(request)); }

  // The next reply; nothing where none comes or the manager has closed the connection.
  std::optional<Reply> next(int timeout_ms = kPatienceMs) {
    Reply reply;
    size_t size = 0;
    while (take_front(received_, reply, size) != Front::kComplete) {
      pollfd readable{fd_.get(), POLLIN, 0};
      uint8_t bytes[1024];
      if (poll(&readable, 1, timeout_ms) != 1) return std::nullopt;
      const ssize_t count = recv(fd_.get(), bytes, sizeof bytes, 0);
      if (count <= 0) return std::nullopt;
      received_.insert(received_.end(), bytes, bytes + count);
    }
    received_.erase(received_.begin(), received_.begin() + static_cast<ptrdiff_t>(size));
    return reply;
  }

  // The result of a request; events on the way are kept.
  int ask(const Request& request) {
    send(request);
    for (;;) {
      const auto reply = next();
      if (!reply) return -99;
      if (const auto* const answer = std::get_if<Answer>(&*reply)) return answer->result;
      if (const auto* const event = std::get_if<Event>(&*reply)) events_.push_back(event->event);
    }
  }

  // The next event, -1 where none comes.
  int event(int timeout_ms = kPatienceMs) {
    if (!events_.empty()) {
      const int first = events_.front();
      events_.pop_front();
      return first;
    }
    const auto reply = next(timeout_ms);
    if (!reply) return -1;
    const auto* const event = std::get_if<Event>(&*reply);
    return event != nullptr ? event->event : -1;
  }
  void acknowledge(int event) { send(Acknowledge{static_cast<pm_event>(event)}); }

  bool is_closed() {
    pollfd readable{fd_.get(), POLLIN, 0};
    uint8_t byte;
    return poll(&readable, 1, kPatienceMs) == 1 && recv(fd_.get(), &byte, 1, 0) <= 0;
  }

 private:
  UniqueFd fd_;
  Bytes received_;
  std::list<int> events_;
};

class PropertyTest : public testing::Test {
 protected:
  PropertyTest() { setenv("PELMAR_PROPERTY_DIR", directory_.path("properties").c_str(), 1); }

  void set_level(const std::string& level) const {
    fs::create_directories(directory_.path("properties/persist"));
    std::ofstream(directory_.path("properties/persist/persist.vendor.ssr.restart_level")) << level;
  }

  ScratchDirectory directory_;
};

class Crash : public PropertyTest {};

class Power : public PropertyTest {
 protected:
  // An acknowledgement has ten minutes: a test that waits for it ends by its own limit.
  explicit Power(const std::string& acknowledge_ms = "600000")
      : modem_(directory_, {"--pm-socket", socket(), "--pm-ack-ms", acknowledge_ms}) {}

  std::string socket() const { return directory_.path("pm"); }
  std::string state() const { return modem_.operator_command("status").at("state"); }
  nlohmann::json manager() const { return modem_.operator_command("power").at("manager"); }

  // Whether the manager comes to count so many votes.
  bool comes_to(size_t votes) const {
    return comes_true([&] { return manager().at("votes") == votes; });
  }

  static void pass(RawVoter& voter, int event) {
    ASSERT_EQ(voter.event(), event);
    voter.acknowledge(event);
  }

  SimProcess modem_;
};

TEST_F(Power, EachStepWaitsForEveryVoter) {
  RawVoter first(socket(), "first");
  RawVoter second(socket(), "second");
  EXPECT_EQ(state(), "off");
  EXPECT_EQ(first.ask(Vote{}), 0);
  pass(first, 2);
  EXPECT_EQ(first.event(kSilenceMs), -1);
  EXPECT_EQ(state(), "off") << "the second has not acknowledged";
  pass(second, 2);
  pass(first, 3);
  EXPECT_EQ(state(), "ready");
  EXPECT_EQ(second.ask(Vote{}), 0);
  EXPECT_EQ(first.ask(Withdraw{}), 0);
  EXPECT_EQ(second.ask(Withdraw{}), 0);
  EXPECT_EQ(second.event(), 3);
  EXPECT_EQ(second.event(kSilenceMs), -1) << "the way up ends first";
  second.acknowledge(3);
  for (RawVoter* const voter : {&second, &first}) {
    EXPECT_EQ(state(), "ready");
    pass(*voter, 0);
  }
  for (RawVoter* const voter : {&first, &second}) pass(*voter, 1);
  EXPECT_EQ(state(), "off");
}

TEST_F(Power, LateAcknowledgementsCountForNothing) {
  RawVoter voter(socket(), "voter");
  voter.ask(Vote{});
  pass(voter, 2);
  EXPECT_EQ(voter.event(), 3);
  voter.acknowledge(2);
  voter.ask(Withdraw{});
  EXPECT_EQ(voter.event(kSilenceMs), -1);
  voter.acknowledge(3);
  pass(voter, 0);
}

TEST_F(Power, AVoteGoesWithItsConnection) {
  auto voter = std::make_unique<RawVoter>(socket(), "voter");
  RawVoter watcher(socket(), "watcher");
  voter->ask(Vote{});
  for (const int event : {2, 3}) {
    pass(*voter, event);
    pass(watcher, event);
  }
  EXPECT_EQ(manager().at("voters").size(), 2u);
  voter.reset();
  pass(watcher, 0);
  EXPECT_TRUE(comes_to(0));
  pass(watcher, 1);

  RawVoter silent(socket(), "silent");
  silent.ask(Vote{});
  pass(watcher, 2);
  EXPECT_EQ(silent.ask(Unregister{}), 0);
  pass(watcher, 3);  // nobody is left that it waits for
  pass(watcher, 0);
  EXPECT_EQ(silent.ask(Vote{}), -1);
}

TEST_F(Power, AProcessThatEndedBeforeItWasAcceptedHasNoVote) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto address = unix_address(socket());
  Bytes requests = to_frame(Request(Register{"modem", "dead"}));
  const Bytes vote = to_frame(Request(Vote{}));
  requests.insert(requests.end(), vote.begin(), vote.end());
  kill(modem_.process(), SIGSTOP);
  const pid_t child = fork();
  if (child == 0) {
    const bool is_connected = connect(fd.get(), address->get(), address->length) == 0;
    _exit(is_connected && send(fd.get(), requests.data(), requests.size(), 0) > 0 ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  kill(modem_.process(), SIGCONT);
  ASSERT_EQ(status, 0);
  EXPECT_TRUE(RawVoter(std::move(fd)).is_closed());
  EXPECT_EQ(manager().at("votes"), 0);
}

class ImpatientPower : public Power {
 protected:
  ImpatientPower() : Power("50") {}
};

TEST_F(ImpatientPower, GoesOnWithoutAVoterThatDoesNotAcknowledge) {
  RawVoter silent(socket(), "silent");
  RawVoter voter(socket(), "voter");
  voter.ask(Vote{});
  for (const int event : {2, 3}) pass(voter, event);
  voter.ask(Withdraw{});
  for (const int event : {0, 1}) pass(voter, event);
  for (const int event : {2, 3, 0, 1}) EXPECT_EQ(silent.event(), event);
  EXPECT_GE(manager().at("overdue_acknowledgements"), 3);
}

TEST_F(Power, RefusesWhatItCannotDo) {
  RawVoter voter(socket());
  EXPECT_EQ(voter.ask(Vote{}), -1) << "nobody is registered";
  EXPECT_EQ(voter.ask(Withdraw{}), -1);
  EXPECT_EQ(voter.ask(Unregister{}), -1);
  EXPECT_EQ(voter.ask(Register{"toaster", "voter"}), -2);
  EXPECT_EQ(voter.ask(Register{"modem", "voter"}), 0);
  EXPECT_EQ(voter.ask(Register{"modem", "again"}), -1);
  EXPECT_EQ(voter.ask(Withdraw{}), 0) << "taking back no vote succeeds";
  voter.send(AskStatus{});
  EXPECT_EQ(voter.next(), Reply(Status{EVENT_PERIPH_IS_OFFLINE, 1}));
  EXPECT_EQ(voter.next(), Reply(VoterEntry{static_cast<uint32_t>(getpid()), false, "voter"}));
}

TEST_F(Power, PeersThatBreakTheProtocolAreDropped) {
  const Bytes cases[] = {{0},
                         {1, 0x07},
                         {1, 0x81},
                         {2, 0x02, 0},
                         {2, 0x05, 4},
                         {4, 0x01, 2, 1, 'm'},
                         {6, 0x01, 1, 1, 'm', 1, '\n'},
                         {5, 0x01, 1, 1, 'm', 0},
                         Bytes(256, 0xFF)};
  for (const Bytes& bytes : cases) {
    RawVoter peer(socket());
    peer.send(bytes);
    EXPECT_TRUE(peer.is_closed()) << bytes.size() << " bytes, kind " << int{bytes.size() > 1 ? bytes[1] : 0};
  }
  RawVoter slow(socket());
  for (const uint8_t byte : to_frame(Request(Register{"modem", "slow"}))) slow.send(Bytes{byte});
  EXPECT_EQ(slow.next(), Reply(Answer{0, EVENT_PERIPH_IS_OFFLINE}));
}

TEST_F(Power, ConnectionsHaveALimitAndThoseThatReadNothingTheirs) {
  std::list<RawVoter> peers;
  for (int i = 0; i < 64; ++i) peers.emplace_back(socket());
  RawVoter surplus(socket());
  EXPECT_TRUE(surplus.is_closed());
  EXPECT_EQ(peers.front().ask(Register{"modem", "voter"}), 0);
  // So many questions that their answers fill the socket, and then the manager's room.
  Bytes questions;
  for (int i = 0; i < 50; ++i) questions.insert(questions.end(), {1, 0x06});
  int sent = 0;
  while (sent < 100'000 && peers.back().send(questions)) ++sent;
  EXPECT_LT(sent, 100'000);
  EXPECT_EQ(state(), "off") << "the modem still serves";
}

TEST_F(Power, WithoutItTheModemIsGoneForItsClients) {
  RawVoter voter(socket(), "voter");
  QmuxClient client(modem_.socket());
  EXPECT_EQ(client.control(0x0022, tlv(0x01, {kVs})).error(), 52);
  EXPECT_EQ(client.control(0x0021).value(0x01).at(0), 1) << "the control service alone";
  voter.ask(Vote{});
  for (const int event : {2, 3}) pass(voter, event);
  const uint8_t id = client.allocate(kVs);
  ASSERT_NE(id, 0);
  voter.ask(Withdraw{});
  pass(voter, 0);
  const auto told = client.receive();
  ASSERT_TRUE(told);
  EXPECT_EQ(told->message, 0x0027) << "all ids are void";
  EXPECT_EQ(client.ask(kVs, id, 0x0000).error(), 52);
  EXPECT_NE(modem_.refused_command("restart").find("is off"), std::string::npos);
  EXPECT_NE(modem_.refused_command("crash").find("is off"), std::string::npos);
}

TEST_F(Crash, RestartsAloneOrLeavesADumpAndStaysDown) {
  SimProcess modem(directory_, {"--reset-ms", "1"});
  const struct {
    const char* level;
    bool restarts;
  } cases[] = {{"", false}, {"ALL_ENABLE", true}, {"ALL_DISABLE", false}, {"related", false}, {"ALL_ENABLE", true}};
  size_t dumps = 0;
  for (const auto& each : cases) {
    SCOPED_TRACE(each.level);
    set_level(each.level);
    QmuxClient client(modem.socket());
    ASSERT_TRUE(comes_true([&] { return client.allocate(kVs) != 0; }));
    const nlohmann::json crash = modem.operator_command("crash");
    EXPECT_EQ(crash.at("restarts"), each.restarts);
    EXPECT_EQ(client.receive()->message, 0x0027);
    if (!each.restarts) {
      EXPECT_EQ(crash.at("dump"), directory_.path("storage/dumps/modem-" + std::to_string(++dumps) + ".txt"));
      EXPECT_GT(fs::file_size(crash.at("dump").get<std::string>()), 100u);
      EXPECT_EQ(client.allocate(kVs), 0);
      EXPECT_EQ(modem.operator_command("status").at("state"), "off");
      modem.operator_command("start");
    }
    ASSERT_TRUE(comes_true([&] { return client.allocate(kVs) != 0; }));
  }
  EXPECT_NE(modem.refused_command("start").find("no crash"), std::string::npos);
}

TEST_F(Power, StartsACrashedModemWhenItComesAnew) {
  RawVoter voter(socket(), "voter");
  EXPECT_NE(modem_.refused_command("start").find("no crash"), std::string::npos) << "it has no power";
  voter.ask(Vote{});
  for (const int event : {2, 3}) pass(voter, event);
  modem_.operator_command("crash");
  EXPECT_EQ(state(), "off");
  voter.ask(Withdraw{});
  for (const int event : {0, 1}) pass(voter, event);
  voter.ask(Vote{});
  for (const int event : {2, 3}) pass(voter, event);
  EXPECT_EQ(state(), "ready");
}

}  // namespace

}  // namespace pelmar::sim::test
