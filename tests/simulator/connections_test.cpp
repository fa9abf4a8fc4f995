// Who may ask what, and what becomes of connections and client ids when peers misbehave.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <new>
#include <optional>
#include <random>
#include <set>

#include "io/stream.h"
#include "qmi/connection.h"
#include "qmux_client.h"
#include "sim_process.h"

namespace pelmar::sim::test {

namespace {

constexpr uint8_t kVs = 0xE4;
constexpr uint8_t kSar = 0x11;
constexpr uint16_t kPassThroughMessage = 0x0000;
const Bytes kHelloValue = {5, 0, 'h', 'e', 'l', 'l', 'o'};
const Bytes kHello = tlv(0x01, kHelloValue);

class Connections : public testing::Test {
 protected:
  std::unique_ptr<QmuxClient> connect() { return std::make_unique<QmuxClient>(modem_.socket()); }
  void expect_alive() {
    auto client = connect();
    EXPECT_EQ(client->ask(kVs, client->allocate(kVs), kPassThroughMessage, kHello).value(0x03), kHelloValue);
  }

  ScratchDirectory directory_;
  SimProcess modem_{directory_};
};

TEST_F(Connections, TheProxyProtocolTellsServicesThatAreUp) {
  auto client = connect();
  EXPECT_EQ(client->control(0xFF00, tlv(0x01, {'/', 'd', 'e', 'v'})).error(), 0);
  const Bytes all = {4, 0, 1, 0, 5, 0, 0x03, 1, 0, 0x84, 1, 0x11, 1, 0, 15, 0, 0xE4, 1, 0, 2, 0};
  EXPECT_EQ(client->control(0x0021).value(0x01), all);
  modem_.operator_command("service nas down");
  modem_.operator_command("service sar down");
  const Bytes rest = {2, 0, 1, 0, 5, 0, 0xE4, 1, 0, 2, 0};
  EXPECT_EQ(client->control(0x0021).value(0x01), rest);
  EXPECT_EQ(client->control(0x0022, tlv(0x01, {kSar})).error(), 41);
  EXPECT_EQ(client->control(0x0026, tlv(0x01, {0}) + tlv(0x10, {1, 0})).value(0x10), (Bytes{1, 0}));
  EXPECT_EQ(client->control(0x7777).error(), 71);
  EXPECT_EQ(client->control(0x0022).error(), 17);
  EXPECT_EQ(client->control(0x0022, tlv(0x01, {kVs, 0})).error(), 1);
}

TEST_F(Connections, TenIdsAServiceOverAllConnections) {
  auto first = connect();
  auto second = connect();
  std::set<uint8_t> ids;
  for (int i = 0; i < 5; ++i) {
    ids.insert(first->allocate(kVs));
    ids.insert(second->allocate(kVs));
  }
  EXPECT_EQ(ids.size(), 10u);
  EXPECT_FALSE(ids.contains(0));
  EXPECT_EQ(first->control(0x0022, tlv(0x01, {kVs})).error(), 5);
  EXPECT_NE(first->allocate(kSar), 0);

  const uint8_t released = *ids.begin();
  auto& owner = first->control(0x0023, tlv(0x01, {kVs, released})).error() == 0 ? first : second;
  EXPECT_EQ(owner->control(0x0023, tlv(0x01, {kVs, released})).error(), 7) << "released twice";
  const uint8_t next = first->allocate(kVs);
  EXPECT_NE(next, 0);
  EXPECT_NE(next, released) << "a late message for the old id would find somebody";
}

TEST_F(Connections, AnIdInUseIsPassedOverWhenTheNumbersBeginAgain) {
  auto client = connect();
  const uint8_t held = client->allocate(kVs);
  for (int i = 0; i < 300; ++i) {
    const uint8_t id = client->allocate(kVs);
    ASSERT_NE(id, held);
    ASSERT_NE(id, 0);
    ASSERT_NE(id, 0xFF) << "addresses all clients";
    ASSERT_EQ(client->control(0x0023, tlv(0x01, {kVs, id})).error(), 0);
  }
}

TEST_F(Connections, IdsOfAConnectionThatClosesAreFree) {
  for (int round = 0; round < 3; ++round) {
    auto client = connect();
    for (int i = 0; i < 10; ++i) EXPECT_NE(client->allocate(kVs), 0) << round;
    EXPECT_EQ(client->control(0x0022, tlv(0x01, {kVs})).error(), 5) << round;
    client->close();
    while (!modem_.operator_command("status")["connections"].empty()) {
    }
  }
}

TEST_F(Connections, AnIdServesItsOwnConnectionOnly) {
  auto owner = connect();
  auto thief = connect();
  const uint8_t id = owner->allocate(kVs);
  EXPECT_EQ(thief->ask(kVs, id, kPassThroughMessage, kHello).error(), 7);
  EXPECT_EQ(thief->control(0x0023, tlv(0x01, {kVs, id})).error(), 7);
  EXPECT_EQ(owner->ask(kSar, id, 0x0001, tlv(0x01, {3, 0, 0, 0})).error(), 7) << "an id of another service";
  EXPECT_EQ(owner->ask(kVs, id, kPassThroughMessage, kHello).value(0x03), kHelloValue);
  EXPECT_EQ(owner->control(0x0027).error(), 0);
  EXPECT_EQ(owner->ask(kVs, id, kPassThroughMessage, kHello).error(), 7) << "void after a sync";
}

TEST_F(Connections, AServiceThatGoesDownRevokesItsClients) {
  auto client = connect();
  const uint8_t vs = client->allocate(kVs);
  const uint8_t sar = client->allocate(kSar);
  modem_.operator_command("service sar down");
  const auto revoked = client->receive();
  ASSERT_TRUE(revoked);
  EXPECT_EQ(revoked->message, 0x0024);
  EXPECT_EQ(revoked->flags, 2);
  EXPECT_EQ(revoked->value(0x01), (Bytes{kSar, sar}));
  EXPECT_EQ(client->ask(kSar, sar, 0x0002).error(), 7);
  EXPECT_EQ(client->ask(kVs, vs, kPassThroughMessage, kHello).error(), 0) << "the other service stays";
  modem_.operator_command("service sar up");
  EXPECT_EQ(client->ask(kSar, sar, 0x0002).error(), 7) << "the old id stays void";
  EXPECT_EQ(client->ask(kSar, client->allocate(kSar), 0x0002).error(), 0);
}

TEST_F(Connections, ARestartVoidsAllIdsAndKeepsConnections) {
  auto client = connect();
  const uint8_t id = client->allocate(kVs);
  modem_.operator_command("service sar down");
  modem_.operator_command("restart 2000");
  const auto sync = client->receive();
  ASSERT_TRUE(sync);
  EXPECT_EQ(sync->message, 0x0027);
  EXPECT_EQ(sync->flags, 2);
  EXPECT_EQ(client->ask(kVs, id, kPassThroughMessage, kHello).error(), 52);
  EXPECT_EQ(client->control(0x0022, tlv(0x01, {kVs})).error(), 52);
  EXPECT_EQ(client->control(0x0021).value(0x01).at(0), 1) << "nothing but the control service";
  EXPECT_TRUE(comes_true([&] { return client->control(0x0021).value(0x01).at(0) > 1; }));
  EXPECT_EQ(client->ask(kVs, id, kPassThroughMessage, kHello).error(), 7);
  EXPECT_NE(client->allocate(kVs), 0);
  EXPECT_NE(client->allocate(kSar), 0) << "a restart brings all services up";
}

TEST_F(Connections, AClientCanResetTheModem) {
  auto client = connect();
  auto bystander = connect();
  const uint8_t id = client->allocate(kVs);
  EXPECT_EQ(client->ask(kVs, id, 0x0401).error(), 0) << "answered before it acts";
  for (QmuxClient* each : {client.get(), bystander.get()}) {
    const auto sync = each->receive();
    ASSERT_TRUE(sync);
    EXPECT_EQ(sync->message, 0x0027);
  }
}

TEST_F(Connections, BytesThatAreNoFramesEndTheirConnectionOnly) {
  const Bytes starts[] = {
      {0x55, 1, 2, 3},                 // no marker
      {0x01, 0x04, 0x00, 0x00},        // shorter than its header
      {0x01, 0x00, 0x00},              // a length of nothing
      {0x01, 0x05, 0x00, 0x80, 0, 0},  // from a modem
  };
  auto bystander = connect();
  for (const Bytes& bytes : starts) {
    auto client = connect();
    client->send_raw(bytes);
    EXPECT_TRUE(client->is_closed_by_modem());
  }
  EXPECT_EQ(bystander->control(0x0027).error(), 0);
  EXPECT_EQ(modem_.operator_command("status")["counters"]["dropped_connections"], std::size(starts));
}

TEST_F(Connections, MessagesThatMakeNoSenseAreRefusedOrIgnored) {
  auto client = connect();
  const uint8_t id = client->allocate(kVs);
  EXPECT_EQ(client->ask(kVs, id, 0x0999).error(), 71);
  EXPECT_EQ(client->ask(kVs, id, kPassThroughMessage).error(), 17);
  EXPECT_EQ(client->ask(kVs, id, kPassThroughMessage, tlv(0x01, {9, 0, 'x'})).error(), 1) << "a count above the bytes";
  EXPECT_EQ(client->ask(kVs, id, kPassThroughMessage, {0x01, 0xFF, 0xFF}).error(), 1) << "a TLV beyond the message";
  EXPECT_EQ(client->ask(kVs, id, kPassThroughMessage, kHello + tlv(0x02, {})).error(), 1) << "unknown mandatory TLV";
  EXPECT_EQ(client->ask(kVs, id, kPassThroughMessage, kHello + tlv(0x33, {1})).error(), 0) << "unknown optional TLV";
  Bytes too_long = {1, 2};
  too_long.resize(2 + 513);
  EXPECT_EQ(client->ask(kVs, id, kPassThroughMessage, tlv(0x01, too_long)).error(), 19);

  client->send_raw({0x01, 0x05, 0x00, 0x00, kVs, id});                                      // no message
  client->send_raw({0x01, 0x0C, 0x00, 0x00, kVs, id, 0x02, 1, 0, 0, 0, 0, 0});              // a response
  client->send_raw({0x01, 0x0C, 0x00, 0x00, kVs, id, 0x00, 9, 0, 0x00, 0x04, 0xFF, 0x7F});  // a length of its own
  const auto answer = client->receive();
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->transaction, 9);
  EXPECT_EQ(answer->error(), 1);
  EXPECT_EQ(modem_.operator_command("status")["counters"]["ignored_frames"], 2);
}

TEST_F(Connections, HalfAndGiantFramesWaitWithoutHoldingUpOthers) {
  auto half = connect();
  half->send_raw({0x01, 0xFF, 0xFF, 0x00});
  half->send_raw(Bytes(30'000, 0x01));
  expect_alive();
  half->send_raw(Bytes(0x10000 - 30'004, 0x01));  // the rest of it, which holds no request
  EXPECT_EQ(half->control(0x0027).error(), 0) << "the stream is still in step";

  auto slow = connect();
  for (const uint8_t byte : Bytes{0x01, 0x0B, 0x00, 0x00, 0, 0, 0, 9, 0x27, 0, 0, 0}) slow->send_raw({byte});
  const auto synced = slow->receive();
  ASSERT_TRUE(synced);
  EXPECT_EQ(synced->transaction, 9);
}

TEST_F(Connections, RandomBytesHurtNobody) {
  std::mt19937 random(20240607);
  for (int round = 0; round < 200; ++round) {
    auto client = connect();
    const uint8_t id = round % 2 == 0 ? client->allocate(kVs) : uint8_t{0};
    Bytes bytes(random() % 400);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    if (id != 0) {
      client->send_request(kVs, id, static_cast<uint16_t>(random() % 0x0210), bytes);
    } else {
      client->send_raw(bytes);
    }
  }
  expect_alive();
}

TEST_F(Connections, AClientThatDoesNotReadIsDroppedAndBlocksNobody) {
  auto deaf = connect();
  const uint8_t id = deaf->allocate(kVs);
  for (int i = 0; i < 400; ++i) {
    modem_.operator_command("event 3 1 record 0:1:" + std::string(1400, 'a') + " record 0:2:" + std::string(1400, 'b') +
                            " record 0:3:" + std::string(1400, 'c') + " record 0:4:" + std::string(1400, 'd') +
                            " record 0:5:" + std::string(1400, 'e') + " to each");
  }
  expect_alive();
  EXPECT_TRUE(deaf->is_closed_by_modem());
  const auto status = modem_.operator_command("status");
  EXPECT_EQ(status["counters"]["dropped_connections"], 1);
  EXPECT_TRUE(status["services"][2]["clients"].empty()) << "id " << int{id};
}

// A stream of a small socket, whose other end reads only when it is told to.
class WaitingStream final : private Stream::Reader {
 public:
  WaitingStream(EventLoop& loop, WaitingOutput& all) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const int least = 1;
    setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    peer_.reset(ends[1]);
    Stream::Reader& reader = *this;
    stream_.emplace(loop, all, UniqueFd(ends[0]), reader, Stream::Bounds{1024, 1 << 20});
  }

  bool is_open() const { return stream_->is_open(); }
  void send(size_t bytes) { stream_->send(Bytes(bytes)); }
  void let_peer_read_some() {
    uint8_t bytes[16 << 10];
    EXPECT_GT(recv(peer_.get(), bytes, sizeof bytes, 0), 0);
    stream_->on_ready(EPOLLOUT);
    EXPECT_FALSE(stream_->is_drained());
  }
  void receive() {
    EXPECT_EQ(::send(peer_.get(), "x", 1, 0), 1);
    stream_->on_ready(EPOLLIN);
  }

 private:
  size_t on_bytes(std::span<const uint8_t>) override { throw std::bad_alloc(); }
  void on_closed(std::string_view) override {}

  UniqueFd peer_;
  std::optional<Stream> stream_;
};

TEST(Streams, ShareABoundWhichDropsThoseWhosePeersHaveReadNothingForTheLongestTime) {
  EventLoop loop;
  WaitingOutput all(400'000);
  WaitingStream first(loop, all);
  WaitingStream second(loop, all);
  WaitingStream third(loop, all);
  first.send(150'000);
  second.send(150'000);
  first.let_peer_read_some();
  third.send(150'000);
  EXPECT_FALSE(second.is_open());
  EXPECT_TRUE(first.is_open()) << "its peer reads";
  third.send(250'000);
  EXPECT_FALSE(first.is_open());
  EXPECT_TRUE(third.is_open()) << "what the others held counts no more";
}

TEST(Streams, EndWhereThereIsNoMemoryForThem) {
  EventLoop loop;
  WaitingOutput all;
  WaitingStream stream(loop, all);
  stream.receive();
  EXPECT_FALSE(stream.is_open());
}

TEST(Streams, AreLeftOutOfABroadcastThatHasClosedThem) {
  struct Ignore final : Connection::Handler {
    void on_frame(Connection&, const qmi::Frame&) override {}
    void on_gone(Connection&, std::string_view) override {}
  } handler;
  ScratchDirectory directory;
  WaitingOutput all;
  EventLoop loop;
  sim::Connections connections(loop, all, directory.path("socket"), Admission::kThisUserAndRoot, handler, {}, {});
  const UniqueFd silent[] = {connect_local(directory.path("socket")), connect_local(directory.path("socket")),
                             connect_local(directory.path("socket"))};
  loop.after_each_round([&](bool) {
    if (connections.count() == std::size(silent)) loop.stop();
    return false;
  });
  loop.run();
  std::vector<uint64_t> reached;
  connections.for_each([&](Connection& connection) {
    reached.push_back(connection.number());
    if (connection.number() == 2) connections.drop_youngest("a send to another one has taken the room");
  });
  EXPECT_EQ(reached, (std::vector<uint64_t>{1, 2}));
}

TEST(Streams, GoOnWhereATaskHasNoMemory) {
  EventLoop loop;
  std::vector<bool> rounds;
  loop.after_each_round([&](bool lacked_memory) {
    rounds.push_back(lacked_memory);
    return lacked_memory;
  });
  loop.post([] { throw std::bad_alloc(); });
  loop.post([&] { loop.after({}, [] { throw std::bad_alloc(); }); });
  loop.after({}, [&] { loop.after({}, [&] { loop.stop(); }); });
  loop.run();
  EXPECT_EQ(std::count(rounds.begin(), rounds.end(), true), 2);
  EXPECT_FALSE(rounds.back());
}

TEST_F(Connections, FiftyAtOnce) {
  std::vector<std::unique_ptr<QmuxClient>> clients;
  for (int i = 0; i < 50; ++i) clients.push_back(connect());
  const uint8_t id = clients[0]->allocate(kVs);
  for (auto& client : clients) client->send_request(0, 0, 0x0021);
  for (auto& client : clients) EXPECT_TRUE(client->receive());
  EXPECT_EQ(modem_.operator_command("status")["connections"].size(), 50u);
  EXPECT_EQ(modem_.operator_command("indication vs 0x0601 01010005 to broadcast")["sent"], 50);
  for (auto& client : clients) {
    const auto indication = client->receive();
    ASSERT_TRUE(indication);
    EXPECT_EQ(indication->client, 0xFF);
    EXPECT_EQ(indication->flags, 4);
    EXPECT_EQ(indication->value(0x01), Bytes{5});
  }
  EXPECT_EQ(clients[0]->ask(kVs, id, kPassThroughMessage, kHello).error(), 0);
}

}  // namespace

}  // namespace pelmar::sim::test
