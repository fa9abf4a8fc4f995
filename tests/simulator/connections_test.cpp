// Client ids, and what becomes of connections when peers misbehave.
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <list>
#include <set>

#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

const Bytes kHello = tlv(0x01, {5, 0, 'h', 'e', 'l', 'l', 'o'});

class Connections : public SimulatorTest {
 protected:
  static uint16_t hello(QmuxClient& client) { return client.ask(kPassThrough, kHello).error(); }
  void expect_alive() {
    QmuxClient client(socket_, kVs);
    EXPECT_EQ(hello(client), 0);
  }
  nlohmann::json dropped() const { return status("/counters/dropped_connections"); }
  // An indication of 30 kB to all connections.
  void broadcast() { modem_.command("indication vs 0x0601 013075" + std::string(2 * 30'000, '0') + " to broadcast"); }
};

TEST_F(Connections, TheControlServiceListsWhatIsUp) {
  QmuxClient client(socket_);
  EXPECT_EQ(client.ask(0xFF00, tlv(0x01, {'/', 'd', 'e', 'v'})).error(), 0) << "opens as a proxy";
  const Bytes all = {4, 0, 1, 0, 5, 0, 0x03, 1, 0, 0x84, 1, 0x11, 1, 0, 15, 0, 0xE4, 1, 0, 2, 0};
  EXPECT_EQ(client.ask(kGetVersions).value(0x01), all);
  for (const char* service : {"nas", "sar"}) modem_.command(std::string("service ") + service + " down");
  EXPECT_EQ(client.ask(kGetVersions).value(0x01), (Bytes{2, 0, 1, 0, 5, 0, 0xE4, 1, 0, 2, 0}));
  EXPECT_EQ(client.ask(0x0026, tlv(0x01, {0}) + tlv(0x10, {1, 0})).value(0x10), (Bytes{1, 0}));
  EXPECT_EQ(client.ask(0x7777).error(), 71);
  const std::pair<Bytes, uint16_t> refused[] = {
      {{}, 17}, {tlv(0x01, {kVs, 0}), 1}, {tlv(0x01, {kSar}), 41}, {tlv(0x01, {0x7F}), 41}};
  for (const auto& [tlvs, error] : refused) EXPECT_EQ(client.ask(kAllocate, tlvs).error(), error);
}

TEST_F(Connections, AServiceGivesTenIdsAndTakesThemBack) {
  QmuxClient first(socket_);
  for (int round = 0; round < 2; ++round) {
    QmuxClient second(socket_);
    std::set<uint8_t> ids;
    for (int i = 0; i < 10; ++i) ids.insert(second.allocate(kVs));
    EXPECT_EQ(ids.size(), 10u);
    EXPECT_FALSE(ids.contains(0));
    EXPECT_EQ(first.ask(kAllocate, tlv(0x01, {kVs})).error(), 5);
    EXPECT_NE(first.allocate(kSar), 0);
    EXPECT_EQ(second.release(kVs, *ids.begin()), 0);
    EXPECT_EQ(second.release(kVs, *ids.begin()), 7) << "released twice";
    EXPECT_NE(second.allocate(kVs), *ids.begin()) << "a late message for the old id would reach the wrong client";
    second.close();
    EXPECT_TRUE(comes_to("/services/2/clients", nlohmann::json::array())) << "ids end with the connection";
  }
  EXPECT_EQ(dropped(), 0) << "the peers closed them";
  const uint8_t held = first.allocate(kVs);
  for (int i = 0; i < 300; ++i) {  // the numbers begin again
    const uint8_t id = first.allocate(kVs);
    ASSERT_TRUE(id != held && id != 0 && id != 0xFF) << int{id};
    ASSERT_EQ(first.release(kVs, id), 0);
  }
}

TEST_F(Connections, AnIdServesItsOwnConnectionAndServiceUntilASync) {
  QmuxClient owner(socket_, kVs);
  QmuxClient other(socket_);
  EXPECT_EQ(other.ask_as(kVs, owner.id(), kPassThrough, kHello).error(), 7);
  EXPECT_EQ(other.release(kVs, owner.id()), 7);
  EXPECT_EQ(owner.ask_as(kSar, owner.id(), 0x0001, tlv(0x01, {3, 0, 0, 0})).error(), 7);
  EXPECT_EQ(other.control(kSync).error(), 0);
  EXPECT_EQ(hello(owner), 0) << "a sync voids the ids of its connection";
  EXPECT_EQ(owner.control(kSync).error(), 0);
  EXPECT_EQ(hello(owner), 7);
}

TEST_F(Connections, ARestartVoidsAllIdsAndKeepsConnections) {
  QmuxClient client(socket_, kVs);
  modem_.command("service sar down");
  modem_.command("restart 3600000");
  EXPECT_EQ(client.receive().message, kSync);
  EXPECT_EQ(status("/state"), "starting");
  EXPECT_EQ(hello(client), 52);
  EXPECT_EQ(client.control(kAllocate, tlv(0x01, {kVs})).error(), 52);
  EXPECT_EQ(client.control(kGetVersions).value(0x01).at(0), 1) << "nothing but the control service";
  modem_.command("restart 1");
  EXPECT_EQ(client.receive().message, kSync);
  EXPECT_TRUE(comes_true([&] { return client.allocate(kSar) != 0; })) << "a restart brings all services up";
  EXPECT_EQ(hello(client), 7);
  QmuxClient resetting(socket_, kVs);
  EXPECT_EQ(resetting.ask(0x0401).error(), 0) << "the response comes before the reset";
  for (QmuxClient* each : {&resetting, &client}) EXPECT_EQ(each->receive().message, kSync);
}

TEST_F(Connections, BytesThatAreNoFramesEndTheirConnectionOnly) {
  const Bytes starts[] = {
      {0x55, 1, 2, 3},                 // no marker
      {0x01, 0x04, 0x00, 0x00},        // shorter than its header
      {0x01, 0x00, 0x00},              // a length of nothing
      {0x01, 0x05, 0x00, 0x80, 0, 0},  // from a modem
  };
  for (const Bytes& bytes : starts) {
    QmuxClient client(socket_);
    client.send(bytes);
    EXPECT_TRUE(client.is_closed_by_modem());
  }
  EXPECT_EQ(dropped(), 4);
  expect_alive();
}

TEST_F(Connections, MalformedMessagesAreRefusedOrIgnored) {
  QmuxClient client(socket_, kVs);
  const std::pair<Bytes, uint16_t> cases[] = {
      {{}, 17},
      {tlv(0x01, {9, 0, 'x'}), 1},   // a count above the bytes
      {{0x01, 0xFF, 0xFF}, 1},       // a TLV beyond the message
      {kHello + tlv(0x02, {}), 1},   // an unknown mandatory TLV
      {kHello + tlv(0x33, {1}), 0},  // an unknown optional TLV
      {tlv(0x01, Bytes{1, 2} + Bytes(513)), 19},
  };
  for (const auto& [tlvs, error] : cases) EXPECT_EQ(client.ask(kPassThrough, tlvs).error(), error);
  EXPECT_EQ(client.ask(0x0999).error(), 71);
  client.send({0x01, 0x05, 0x00, 0x00, kVs, client.id()});                                      // no message
  client.send({0x01, 0x0C, 0x00, 0x00, kVs, client.id(), 0x02, 1, 0, 0, 0, 0, 0});              // a response
  client.send({0x01, 0x0C, 0x00, 0x00, kVs, client.id(), 0x00, 9, 0, 0x00, 0x04, 0xFF, 0x7F});  // a wrong length
  const Received response = client.receive();
  EXPECT_EQ(response.transaction, 9);
  EXPECT_EQ(response.error(), 1);
  EXPECT_EQ(status("/counters/ignored_frames"), 2);
}

TEST_F(Connections, AnUnfinishedFrameHoldsUpNobody) {
  QmuxClient half(socket_);
  half.send(Bytes{0x01, 0xFF, 0xFF, 0x00} + Bytes(30'000, 0x01));
  expect_alive();
  half.send(Bytes(0x10000 - 30'004, 0x01));  // the rest of it, which holds no request
  for (const uint8_t byte : half.request(kSync)) half.send({byte});
  EXPECT_EQ(half.receive().message, kSync) << "the stream is in step";
}

TEST_F(Connections, AClientThatDoesNotReadIsDroppedAtItsBound) {
  QmuxClient deaf(socket_);
  QmuxClient reading(socket_, kVs);
  int sent = 0;
  for (; sent < 100 && dropped() == 0; ++sent) {
    broadcast();
    const Received indication = reading.receive();
    EXPECT_EQ(indication.tlvs.size(), 30'003u);
    EXPECT_TRUE(indication.client == 0xFF && indication.kind == Kind::kIndication);
  }
  EXPECT_GT(sent, 1 << 20 >> 15) << "before 1 MiB was waiting";
  EXPECT_LT(sent, 100);
  EXPECT_TRUE(deaf.is_closed_by_modem());
  EXPECT_EQ(hello(reading), 0);
}

// Each has less than its own bound of output that waits.
TEST_F(Connections, BeyondTheCommonBoundThoseThatReadNothingAreDropped) {
  std::list<QmuxClient> clients;
  for (int i = 0; i < 30; ++i) clients.emplace_back(socket_);
  for (int i = 0; i < 32; ++i) {
    broadcast();
    for (size_t read = 0; i == 20 && read < 250'000;) {  // more than its socket holds
      read += clients.front().receive_raw(60'000).size();
    }
  }
  EXPECT_NE(dropped(), 0);
  EXPECT_EQ(status("/connections/0/number"), 1) << "the one that has read";
  EXPECT_TRUE((++clients.begin())->is_closed_by_modem());
  expect_alive();
}

TEST_F(Connections, WithoutMemoryTheModemDropsConnectionsAndGoesOn) {
  uint64_t pages = 0;
  std::ifstream("/proc/" + std::to_string(modem_.process()) + "/statm") >> pages;
  if (pages > (uint64_t{1} << 32)) GTEST_SKIP() << "a sanitizer has reserved the address space";
  const rlimit limit = {pages * 4096 + (4 << 20), RLIM_INFINITY};
  ASSERT_EQ(prlimit(modem_.process(), RLIMIT_AS, &limit, nullptr), 0);
  std::list<QmuxClient> clients;
  for (int i = 0; i < 200; ++i) clients.emplace_back(socket_);
  const auto is_served = [](QmuxClient& client) {
    client.send(client.request(kSync));
    return client.receive().message == kSync;
  };
  EXPECT_LT(std::count_if(clients.begin(), clients.end(), is_served), 200);
  clients.clear();
  EXPECT_TRUE(comes_true([&] {
    QmuxClient client(socket_);
    return is_served(client);
  }));
}

}  // namespace

}  // namespace pelmar::sim::test
