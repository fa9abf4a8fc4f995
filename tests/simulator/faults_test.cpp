// Each fault that the operator can ask for, and what its row takes.
#include <gtest/gtest.h>

#include <chrono>

#include "qmux_client.h"
#include "sim_process.h"

namespace pelmar::sim::test {

namespace {

constexpr uint8_t kVs = 0xE4;
constexpr int kSilenceMs = 150;

class Faults : public testing::Test {
 protected:
  Received ask(uint16_t message = 0x0000) { return client_.ask(kVs, id_, message, kPayload); }
  void send(uint16_t message = 0x0000) { client_.send_request(kVs, id_, message, kPayload); }

  const Bytes kPayload = tlv(0x01, {2, 0, 0xAA, 0xBB});
  ScratchDirectory directory_;
  SimProcess modem_{directory_};
  QmuxClient client_{modem_.socket()};
  const uint8_t id_ = client_.allocate(kVs);
};

TEST_F(Faults, ErrorsRefuseWithoutDoingAnything) {
  modem_.operator_command("error 52 vs write-rfnv 1");
  const Bytes write = tlv(0x01, {7, 0, 0, 0}) + tlv(0x02, {1, 0, 0x11});
  EXPECT_EQ(client_.ask(kVs, id_, 0x010A, write).error(), 52);
  EXPECT_EQ(client_.ask(kVs, id_, 0x0109, tlv(0x01, {7, 0, 0, 0})).error(), 50);
  EXPECT_EQ(client_.ask(kVs, id_, 0x010A, write).error(), 0) << "once";
  EXPECT_EQ(client_.ask(kVs, id_, 0x0109, tlv(0x01, {7, 0, 0, 0})).value(0x03), (Bytes{1, 0, 0x11}));
}

TEST_F(Faults, SilenceDoesAndAnswersNothing) {
  modem_.operator_command("silence vs write-rfnv 1");
  client_.send_request(kVs, id_, 0x010A, tlv(0x01, {7, 0, 0, 0}) + tlv(0x02, {1, 0, 0x11}));
  EXPECT_FALSE(client_.receive(kSilenceMs));
  EXPECT_EQ(client_.ask(kVs, id_, 0x0109, tlv(0x01, {7, 0, 0, 0})).value(0x03), (Bytes{1, 0, 0x11}));
}

TEST_F(Faults, ADelayedAnswerHoldsUpNoOther) {
  modem_.operator_command("delay 2000 vs 0x0000 1");
  const auto start = std::chrono::steady_clock::now();
  send();
  EXPECT_EQ(client_.ask(kVs, id_, 0x0002, tlv(0x01, {1, 0, 0, 0})).error(), 0);
  const auto late = client_.receive();
  ASSERT_TRUE(late);
  EXPECT_EQ(late->message, 0x0000);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
}

TEST_F(Faults, ADelayedAnswerForAClientThatIsGoneIsDropped) {
  modem_.operator_command("delay 1000 vs any 1");
  send();
  EXPECT_EQ(client_.control(0x0023, tlv(0x01, {kVs, id_})).error(), 0);
  EXPECT_FALSE(client_.receive(1000 + kSilenceMs));
}

TEST_F(Faults, ACutMessageKeepsItsFrameInStep) {
  modem_.operator_command("cut 9 vs any 1");
  send();
  const Bytes cut = client_.receive_raw(100);
  const Bytes expected = {0x01, 14, 0, 0x80, kVs, id_, 0x02, 2, 0, 0, 0, 14, 0, 0x02, 4};
  EXPECT_EQ(cut, expected);
  EXPECT_EQ(ask().error(), 0);
}

TEST_F(Faults, GarbageComesInsteadOfTheAnswer) {
  modem_.operator_command("garbage 55aa00 vs any 1");
  send();
  EXPECT_EQ(client_.receive_raw(100), (Bytes{0x55, 0xAA, 0x00}));
  EXPECT_EQ(ask().error(), 0);
  modem_.operator_command("garbage random vs any 1");
  send();
  EXPECT_FALSE(client_.receive_raw(1000).empty());
  EXPECT_EQ(modem_.operator_command("inject 0102")["connections"], 1);
  EXPECT_EQ(client_.receive_raw(100), (Bytes{1, 2}));
}

TEST_F(Faults, ARepeatedAnswerComesTwice) {
  modem_.operator_command("repeat vs any 1");
  const Received answer = ask();
  const auto again = client_.receive();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->transaction, answer.transaction);
  EXPECT_EQ(again->tlvs, answer.tlvs);
  EXPECT_EQ(ask().error(), 0) << "once";
}

TEST_F(Faults, AReorderedAnswerComesBehindTheNextOfItsConnection) {
  modem_.operator_command("reorder 60000 vs 0x0000 2");
  QmuxClient other(modem_.socket());
  const uint8_t other_id = other.allocate(kVs);
  send();
  send();
  EXPECT_EQ(other.ask(kVs, other_id, 0x0002, tlv(0x01, {1, 0, 0, 0})).message, 0x0002);
  const Received next = client_.ask(kVs, id_, 0x0002, tlv(0x01, {1, 0, 0, 0}));
  for (int behind = 2; behind >= 1; --behind) {
    const auto late = client_.receive();
    ASSERT_TRUE(late);
    EXPECT_EQ(late->message, 0x0000);
    EXPECT_EQ(late->transaction, next.transaction - behind) << "in their own order";
  }
}

TEST_F(Faults, AReorderedAnswerWaitsForNoOtherBeyondItsLimit) {
  modem_.operator_command("reorder 50 vs any 1");
  EXPECT_EQ(ask().error(), 0);
  EXPECT_EQ(ask().error(), 0);
}

TEST_F(Faults, HalfAnAnswerAndTheEndOfTheConnection) {
  modem_.operator_command("die connection vs any 1");
  send();
  EXPECT_EQ(client_.receive_raw(100).size(), 13u) << "half of 26";
  EXPECT_TRUE(client_.is_closed_by_modem());
  QmuxClient next(modem_.socket());
  EXPECT_NE(next.allocate(kVs), 0);
}

TEST_F(Faults, HalfAnAnswerAndTheEndOfTheModem) {
  modem_.operator_command("die modem vs any 1");
  send();
  EXPECT_EQ(client_.receive_raw(100).size(), 13u) << "half of 26";
  EXPECT_TRUE(client_.is_closed_by_modem());
  EXPECT_EQ(modem_.end(0), 70);
}

TEST_F(Faults, ARowTakesWhatItNamesAndCounts) {
  modem_.operator_command("error 94 ctl 0x0021 2");
  modem_.operator_command("error 42 vs any 1");
  EXPECT_EQ(client_.control(0x0027).error(), 0);
  EXPECT_EQ(client_.control(0x0021).error(), 94);
  EXPECT_EQ(client_.control(0x0021).error(), 94);
  EXPECT_EQ(client_.control(0x0021).error(), 0);
  EXPECT_EQ(modem_.operator_command("status")["faults"].size(), 1u);

  modem_.operator_command("error 4");
  EXPECT_EQ(client_.ask(kVs, 99, 0x0000).error(), 42) << "the older row first";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(client_.control(0x0021).error(), 4);
  EXPECT_EQ(modem_.operator_command("clear")["removed"], 1);
  EXPECT_EQ(client_.control(0x0021).error(), 0);
  EXPECT_EQ(modem_.operator_command("status")["counters"]["faults"], 6);
}

TEST_F(Faults, WrongCommandsSayWhatIsWrong) {
  const struct {
    const char* line;
    const char* error;
  } cases[] = {
      {"", "empty command"},
      {"\xFF\xFE", "unknown command"},
      {"delay", "missing MS"},
      {"delay soon", "'soon' is no MS"},
      {"error 0", "error 0 is success"},
      {"error 65536", "a number from 0 to 65535"},
      {"silence vs 256 1 1", "'1' is one word too many"},
      {"silence nobody", "no service 'nobody': there are nas, sar, vs"},
      {"silence vs read-everything", "no message 'read-everything'"},
      {"silence vs any 0", "COUNT 0 would do nothing"},
      {"garbage 123", "pairs of hexadecimal digits"},
      {"die tomorrow", "neither connection nor modem"},
      {"service vs sideways", "neither up nor down"},
      {"event 3 1 record 0:1:zz", "'zz' is no HEX"},
      {"stream 5", "no client asked for event 3"},
  };
  for (const auto& each : cases) {
    EXPECT_NE(modem_.refused_command(each.line).find(each.error), std::string::npos)
        << each.line << ": " << modem_.refused_command(each.line);
  }
  EXPECT_TRUE(modem_.operator_command("status")["faults"].empty());
}

}  // namespace

}  // namespace pelmar::sim::test
