// Client ids, and connections whose peers break the protocol.
#include <set>

#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

const Bytes kHello = tlv(0x01, {5, 0, 'h', 'e', 'l', 'l', 'o'});

class Connections : public SimulatorTest {
 protected:
  static uint16_t send_hello(QmuxClient& client) { return client.exchange(kPassThrough, kHello).error(); }
  void expect_alive() {
    QmuxClient client(socket_, kVs);
    EXPECT_EQ(send_hello(client), 0);
  }
  nlohmann::json dropped() const { return status("/counters/dropped_connections"); }
};

TEST_F(Connections, AServiceAllocatesTenIdsAndReleasesThem) {
  QmuxClient first(socket_);
  for (int round = 0; round < 2; ++round) {
    QmuxClient second(socket_);
    std::set<uint8_t> ids;
    for (int i = 0; i < 10; ++i) ids.insert(second.allocate(kVs));
    EXPECT_EQ(ids.size(), 10u);
    EXPECT_FALSE(ids.contains(0));
    EXPECT_EQ(first.exchange(kAllocate, tlv(0x01, {kVs})).error(), 5);
    EXPECT_EQ(second.release(kVs, *ids.begin()), 0);
    EXPECT_EQ(second.release(kVs, *ids.begin()), 7) << "the second release";
    EXPECT_NE(second.allocate(kVs), *ids.begin())
        << "an id is not reused at once: a late message would reach the wrong client";
    second.close();
    EXPECT_TRUE(wait_for_status("/services/2/clients", nlohmann::json::array())) << "ids end with the connection";
  }
  EXPECT_EQ(dropped(), 0) << "the peers closed them";
  modem_.command("service sar down");
  const std::pair<Bytes, uint16_t> refused[] = {
      {{}, 17}, {tlv(0x01, {kVs, 0}), 1}, {tlv(0x01, {kSar}), 41}, {tlv(0x01, {0x7F}), 41}};
  for (const auto& [tlvs, error] : refused) EXPECT_EQ(first.exchange(kAllocate, tlvs).error(), error);
}

TEST_F(Connections, AnIdIsValidForItsConnectionAndServiceUntilASync) {
  QmuxClient owner(socket_, kVs);
  QmuxClient other(socket_);
  EXPECT_EQ(other.exchange_as(kVs, owner.id(), kPassThrough, kHello).error(), 7);
  EXPECT_EQ(other.release(kVs, owner.id()), 7);
  EXPECT_EQ(owner.exchange_as(kSar, owner.id(), 0x0001, tlv(0x01, {3, 0, 0, 0})).error(), 7);
  EXPECT_EQ(other.control(kSync).error(), 0);
  EXPECT_EQ(send_hello(owner), 0) << "a SYNC request releases only the ids of its connection";
  EXPECT_EQ(owner.control(kSync).error(), 0);
  EXPECT_EQ(send_hello(owner), 7);
}

TEST_F(Connections, BytesThatAreNoFramesEndTheirConnectionOnly) {
  const Bytes starts[] = {
      {0x55, 1, 2, 3},           // no frame marker
      {0x01, 0x04, 0x00},        // shorter than its header
      {0x01, 0x05, 0x00, 0x80},  // from a modem
  };
  for (const Bytes& bytes : starts) {
    QmuxClient client(socket_);
    client.send(bytes);
    EXPECT_TRUE(client.is_closed_by_modem());
  }
  EXPECT_EQ(dropped(), 3);
  expect_alive();
}

TEST_F(Connections, MalformedMessagesAreRefusedOrIgnored) {
  QmuxClient client(socket_, kVs);
  const std::pair<Bytes, uint16_t> cases[] = {
      {{}, 17},
      {tlv(0x01, {9, 0, 'x'}), 1},   // a count above the number of bytes
      {{0x01, 0xFF, 0xFF}, 1},       // a TLV beyond the message
      {kHello + tlv(0x02, {}), 1},   // an unknown mandatory TLV
      {kHello + tlv(0x33, {1}), 0},  // an unknown optional TLV
      {tlv(0x01, Bytes{1, 2} + Bytes(513)), 19},
  };
  for (const auto& [tlvs, error] : cases) EXPECT_EQ(client.exchange(kPassThrough, tlvs).error(), error);
  EXPECT_EQ(client.exchange(0x0999).error(), 71);
  client.send({0x01, 0x05, 0x00, 0x00, kVs, client.id()});                                      // no message
  client.send({0x01, 0x0C, 0x00, 0x00, kVs, client.id(), 0x01, 9, 0, 0x00, 0x04, 0, 0});        // no kind
  client.send({0x01, 0x0C, 0x00, 0x00, kVs, client.id(), 0x00, 9, 0, 0x00, 0x04, 0xFF, 0x7F});  // a wrong length
  EXPECT_EQ(client.receive().error(), 1);
  EXPECT_EQ(status("/counters/ignored_frames"), 2);
}

TEST_F(Connections, AClientThatDoesNotReadIsDroppedAtTheLimit) {
  QmuxClient stalled(socket_);
  QmuxClient reading(socket_, kVs);
  int sent = 0;
  for (; sent < 100 && dropped() == 0; ++sent) {
    modem_.command("indication vs 0x0601 013075" + std::string(2 * 30'000, '0') + " to broadcast");
    EXPECT_EQ(reading.receive().tlvs.size(), 30'003u);
  }
  EXPECT_GT(sent, 1 << 20 >> 15) << "dropped before 1 MiB waited";
  EXPECT_LT(sent, 100);
  EXPECT_TRUE(stalled.is_closed_by_modem());
  EXPECT_EQ(send_hello(reading), 0);
}

}  // namespace

}  // namespace pelmar::sim::test
