// Each fault that a user can set, the responses that it affects, and the commands that are refused.
#include <chrono>

#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

class Faults : public SimulatorTest {
 protected:
  Bytes request() { return client_.request(kPassThrough, kPayload); }
  Received exchange() { return client_.exchange(kPassThrough, kPayload); }
  Received read() { return client_.exchange(kReadRfnv, kItem); }

  const Bytes kPayload = tlv(0x01, {2, 0, 0xAA, 0xBB});
  const Bytes kItem = tlv(0x01, {7, 0, 0, 0});
  const Bytes kWrite = kItem + tlv(0x02, {1, 0, 0x11});
  QmuxClient client_{modem_.socket(), kVs};
};

TEST_F(Faults, AnErrorPreventsARequestAndSilenceDropsOnlyItsResponse) {
  modem_.command("error 52 vs write-rfnv");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(client_.exchange(kWriteRfnv, kWrite).error(), 52);
  EXPECT_EQ(read().error(), 50);
  EXPECT_EQ(modem_.value("clear", "/removed"), 1);
  modem_.command("silence vs write-rfnv 1");
  client_.send(client_.request(kWriteRfnv, kWrite));
  EXPECT_EQ(read().value(0x03), (Bytes{1, 0, 0x11})) << "the first response is that of the read";
  EXPECT_EQ(client_.exchange(kWriteRfnv, kWrite).error(), 0) << "the fault applies once";
}

// Two pass-through requests and a read. By command, the least time in milliseconds and the order of the responses.
TEST_F(Faults, ResponsesComeInTheOrderOfTheFault) {
  const std::tuple<const char*, int, std::vector<int>> cases[] = {
      {"repeat vs any 1", 0, {1, 1, 2, 3}},
      {"delay 100 vs 0x0000 1", 100, {2, 3, 1}},
      {"reorder 60000 vs 0x0000 2", 0, {3, 1, 2}},
      {"reorder 100 vs read-rfnv", 100, {1, 2, 3}},
  };
  for (const auto& [command, least_ms, order] : cases) {
    SCOPED_TRACE(command);
    QmuxClient client(socket_, kVs);  // its next request is its second, after the allocation
    modem_.command(command);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 2; ++i) client.send(client.request(kPassThrough, kPayload));
    EXPECT_EQ(client_.control(kSync).error(), 0) << "the fault does not apply to CTL";
    client.send(client.request(kReadRfnv, kItem));
    for (const int number : order) EXPECT_EQ(client.receive().transaction, 1 + number);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(least_ms));
    EXPECT_EQ(client.exchange(kPassThrough, kPayload).error(), 0) << "no further response arrives";
  }
}

TEST_F(Faults, BytesComeInsteadOfAResponse) {
  const std::pair<const char*, Bytes> cases[] = {
      {"cut 9 vs any 1", {0x01, 14, 0, 0x80, kVs, client_.id(), 0x02, 2, 0, 0, 0, 14, 0, 0x02, 4}},
      {"garbage 55aa00 vs any 1", {0x55, 0xAA, 0x00}},
  };
  for (const auto& [command, bytes] : cases) {
    modem_.command(command);
    client_.send(request());
    EXPECT_EQ(client_.receive_raw(bytes.size()), bytes) << command;
    EXPECT_EQ(exchange().error(), 0) << "the next response is at a frame's start";
  }
  EXPECT_EQ(modem_.value("inject 0102", "/connections"), 1);
  EXPECT_EQ(client_.receive_raw(100), (Bytes{1, 2}));
}

TEST_F(Faults, HalfAResponseEndsTheConnectionOrTheModem) {
  for (const char* const what : {"connection", "modem"}) {
    QmuxClient client(socket_, kVs);
    EXPECT_EQ(exchange().error(), 0) << "the other connections remain";
    modem_.command(std::string("die ") + what + " vs any 1");
    client.send(client.request(kPassThrough, kPayload));
    EXPECT_EQ(client.receive_raw(100).size(), 13u) << "half of 26";
    EXPECT_TRUE(client.is_closed_by_modem());
  }
  EXPECT_EQ(modem_.end(0), 70);
}

TEST_F(Faults, WrongCommandsAreRefusedWithTheReason) {
  const std::pair<const char*, const char*> cases[] = {
      {"\xFF\xFE", "unknown command"},
      {"delay", "missing MS"},
      {"error 65536", "a number from 0 to 65535"},
      {"silence nobody", "no service 'nobody': there are nas, sar, vs"},
      {"silence vs read-everything", "no message 'read-everything'"},
      {"event 3 1 record 0:1:zz", "'zz' is no HEX"},
      {"stream 5", "no client has registered for event 3"},
      {"statistic 0 lte-pcc pci=1 rsrp=2", "rsrp_rx0"},
  };
  for (const auto& [line, reason] : cases) {
    const std::string error = modem_.refused_command(line);
    EXPECT_NE(error.find(reason), std::string::npos) << line << ": " << error;
  }
  EXPECT_EQ(status("/faults"), nlohmann::json::array());
}

}  // namespace

}  // namespace pelmar::sim::test
