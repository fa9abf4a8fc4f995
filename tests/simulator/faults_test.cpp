// Each fault that the user can order, and which responses its row takes.
#include <gtest/gtest.h>

#include <chrono>

#include "qmux_client.h"
#include "sim_process.h"

namespace pelmar::sim::test {

namespace {

constexpr uint16_t kPassThrough = 0x0000;
constexpr uint16_t kReadRfnv = 0x0109;
constexpr uint16_t kWriteRfnv = 0x010A;

class Faults : public testing::Test {
 protected:
  Bytes request() { return client_.request(kPassThrough, kPayload); }
  Received ask() { return client_.ask(kPassThrough, kPayload); }
  Received read() { return client_.ask(kReadRfnv, tlv(0x01, {7, 0, 0, 0})); }

  const Bytes kPayload = tlv(0x01, {2, 0, 0xAA, 0xBB});
  const Bytes kWrite = tlv(0x01, {7, 0, 0, 0}) + tlv(0x02, {1, 0, 0x11});
  ScratchDirectory directory_;
  SimProcess modem_{directory_};
  ServiceClient client_{modem_.socket(), kVs};
};

TEST_F(Faults, AnErrorIsReturnedAndNothingDone) {
  modem_.command("error 52 vs write-rfnv 1");
  EXPECT_EQ(client_.ask(kWriteRfnv, kWrite).error(), 52);
  EXPECT_EQ(read().error(), 50);
  EXPECT_EQ(client_.ask(kWriteRfnv, kWrite).error(), 0) << "once";
}

TEST_F(Faults, ASilentRequestIsDone) {
  modem_.command("silence vs write-rfnv 1");
  client_.send(client_.request(kWriteRfnv, kWrite));
  EXPECT_EQ(read().value(0x03), (Bytes{1, 0, 0x11})) << "the first response that comes";
}

TEST_F(Faults, ADelayedResponseHoldsUpNoOther) {
  modem_.command("delay 100 vs 0x0000 1");
  const auto start = std::chrono::steady_clock::now();
  client_.send(request() + client_.request(kReadRfnv, tlv(0x01, {7, 0, 0, 0})));  // at once: the modem reads both
  EXPECT_EQ(client_.receive().message, kReadRfnv);
  EXPECT_EQ(client_.receive().message, kPassThrough);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(Faults, ADelayedResponseIsDroppedWhenItsClientIsGone) {
  modem_.command("delay 50 vs 0x0000 2");
  const uint8_t next = client_.allocate(kVs);
  client_.send(request());
  EXPECT_EQ(client_.release(kVs, client_.id()), 0);
  EXPECT_EQ(client_.QmuxClient::ask(kVs, next, kPassThrough, kPayload).error(), 0) << "delayed as long, so it is later";
}

TEST_F(Faults, WhatComesInsteadOfAResponse) {
  const std::pair<const char*, Bytes> cases[] = {
      {"cut 9 vs any 1", {0x01, 14, 0, 0x80, kVs, client_.id(), 0x02, 2, 0, 0, 0, 14, 0, 0x02, 4}},
      {"garbage 55aa00 vs any 1", {0x55, 0xAA, 0x00}},
  };
  for (const auto& [command, bytes] : cases) {
    modem_.command(command);
    client_.send(request());
    Bytes received = client_.receive_raw(bytes.size());
    if (received.size() > 7) received[7] = 2;  // the transaction
    EXPECT_EQ(received, bytes) << command;
    EXPECT_EQ(ask().error(), 0) << "the stream is in step";
  }
  modem_.command("garbage random vs any 1");
  client_.send(request());
  EXPECT_EQ(client_.receive_raw(100).size(), 64u);
  EXPECT_EQ(modem_.value("inject 0102", "/connections"), "1");
  EXPECT_EQ(client_.receive_raw(100), (Bytes{1, 2}));
}

TEST_F(Faults, ARepeatedResponseComesTwice) {
  modem_.command("repeat vs any 1");
  const Received response = ask();
  const Received again = client_.receive();
  EXPECT_EQ(again.transaction, response.transaction);
  EXPECT_EQ(again.tlvs, response.tlvs);
  EXPECT_EQ(ask().error(), 0) << "once";
}

TEST_F(Faults, AReorderedResponseFollowsTheNextOfItsConnection) {
  modem_.command("reorder 60000 vs 0x0000 2");
  ServiceClient other(modem_.socket(), kVs);
  for (int i = 0; i < 2; ++i) client_.send(request());
  EXPECT_TRUE(comes_true([&] { return modem_.value("status", "/counters/faults") == "2"; }));
  EXPECT_EQ(other.ask(kReadRfnv, tlv(0x01, {7, 0, 0, 0})).error(), 50);
  const Received next = read();
  for (int behind = 2; behind >= 1; --behind) {
    EXPECT_EQ(client_.receive().transaction, next.transaction - behind) << "in their own order";
  }
  modem_.command("reorder 50 vs any 1");
  EXPECT_EQ(ask().error(), 0) << "no other comes before the limit";
}

TEST_F(Faults, HalfAResponseIsTheEndOfTheConnectionOrTheModem) {
  for (const char* const what : {"connection", "modem"}) {
    ServiceClient client(modem_.socket(), kVs);
    modem_.command(std::string("die ") + what + " vs any 1");
    client.send(client.request(kPassThrough, kPayload));
    EXPECT_EQ(client.receive_raw(100).size(), 13u) << "half of 26";
    EXPECT_TRUE(client.is_closed_by_modem());
    if (what[0] == 'c') {
      EXPECT_EQ(ask().error(), 0) << "the other connections stay";
    }
  }
  EXPECT_EQ(modem_.end(0), 70);
}

TEST_F(Faults, ARowTakesWhatItNamesAndCounts) {
  modem_.command("error 94 ctl 0x0021 2");
  modem_.command("error 42 vs any 1");
  EXPECT_EQ(client_.control(kSync).error(), 0);
  for (const uint16_t error : {94, 94, 0}) EXPECT_EQ(client_.control(kGetVersions).error(), error);
  modem_.command("error 4");
  EXPECT_EQ(ask().error(), 42) << "the older row first";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(client_.control(kGetVersions).error(), 4);
  EXPECT_EQ(modem_.value("clear", "/removed"), "1");
  EXPECT_EQ(client_.control(kGetVersions).error(), 0);
  EXPECT_EQ(modem_.value("status", "/counters/faults"), "6");
}

TEST_F(Faults, WrongCommandsAreRefusedWithTheReason) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "empty command"},
      {"\xFF\xFE", "unknown command"},
      {"delay", "missing MS"},
      {"delay soon", "'soon' is no MS"},
      {"error 0", "error 0 is success"},
      {"error 65536", "a number from 0 to 65535"},
      {"silence vs 256 1 1", "'1' is one word too many"},
      {"silence nobody", "no service 'nobody': there are nas, sar, vs"},
      {"silence vs read-everything", "no message 'read-everything'"},
      {"silence nas x", "register-indications, "},
      {"silence vs any 0", "COUNT 0 would do nothing"},
      {"garbage 123", "pairs of hexadecimal digits"},
      {"die tomorrow", "neither connection nor modem"},
      {"service vs sideways", "neither up nor down"},
      {"event 3 1 record 0:1:zz", "'zz' is no HEX"},
      {"stream 5", "no client has registered for event 3"},
      {"restart -1", "'-1' is no MS"},
      {"start", "no crash has left the modem down"},
      {"statistic 2 0x52", "from 0 to 1"},
      {"statistic 0 lte", "lte-pcc, lte-scc1"},
      {"statistic 0 lte-pcc pci=1 rsrp=2", "rsrp_rx0"},
      {"statistic 0 lte-pcc pci=1 earfcn=-1", "from 0.0 to 4294967295.0"},
      {"statistic 0 lte-pcc pci=nan", "no number"},
      {"statistic 0 lte-pcc pci=", "no number"},
      {"statistic 0 lte-pcc 123", "pairs of hexadecimal digits"},
      {"report-period 5", "at least 10"},
      {"scenario none", "no such file"},
  };
  for (const auto& [line, reason] : cases) {
    const std::string error = modem_.refused_command(line);
    EXPECT_NE(error.find(reason), std::string::npos) << line << ": " << error;
  }
  EXPECT_EQ(modem_.value("status", "/faults"), "[]");
  EXPECT_EQ(modem_.value("statistic 0 lte-pcc", "/source"), "\"radio\"");
}

}  // namespace

}  // namespace pelmar::sim::test
