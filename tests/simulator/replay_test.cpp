// Captures that are played, and those that cannot be.
#include <fcntl.h>

#include <fstream>
#include <optional>

#include "capture.h"
#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

constexpr uint8_t kOther = 0x02;  // a service that the modem does not have
constexpr uint16_t kEvent = 0x0203;
const Bytes kSuccess = tlv(0x02, {0, 0, 0, 0});

// The argument by which requests differ.
Bytes argument(uint8_t value) {
  return tlv(0x01, {value});
}

class ReplayTest : public testing::Test {
 protected:
  void begin_link() { link_ = writer_.add_link({"@modem", "app[1]"}, qmi::CaptureWriter::Sharing::kOwn); }
  void write(uint8_t service, uint8_t client, Kind kind, uint16_t message, const Bytes& tlvs) {
    const auto direction = kind == Kind::kRequest ? qmi::Direction::kToModem : qmi::Direction::kFromModem;
    Bytes bytes(100);
    qmi::FrameWriter frame(direction, bytes);
    frame.start(service, client, kind, 500, message);
    frame.add_tlvs(tlvs);
    writer_.write(link_, direction, service, client, frame.finish().subspan(qmi::kFrameHeaderLength));
  }
  void write_exchange(uint8_t service, uint16_t message, uint8_t request, uint8_t response) {
    write(service, 7, Kind::kRequest, message, argument(request));
    write(service, 7, Kind::kResponse, message, kSuccess + tlv(0x10, {response}));
  }
  void play() { modem_.emplace(directory_, std::vector<std::string>{"--replay", capture_, "--speed", "1000"}); }

  void expect_refusal(std::vector<std::string> options, const std::string& problem) const {
    options.insert(options.begin(),
                   {"serve", "--socket", directory_.path("refused"), "--storage", directory_.path("other")});
    expect_end(options, 1, problem);
  }

  // Returns the byte of the recorded response, or the error.
  static int response_to(QmuxClient& client, uint16_t message, uint8_t request) {
    const Received response = client.exchange(message, argument(request));
    if (response.error() != 0) return -response.error();
    const Bytes value = response.value(0x10);
    return value.empty() ? -1 : value[0];
  }

  ScratchDirectory directory_;
  const std::string capture_ = directory_.path("capture");
  const UniqueFd file_{open(capture_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)};
  qmi::CaptureWriter writer_{file_.get(), "test 1", [](int) { FAIL(); }};
  uint32_t link_ = 0;
  std::optional<SimProcess> modem_;
};

TEST_F(ReplayTest, RequestsGetTheResponsesOfARecordedClient) {
  begin_link();
  for (const char response : {'a', 'b'}) write_exchange(kVs, 0x0100, 1, response);
  write(kVs, 7, Kind::kRequest, 0x0101, argument(1));  // without response
  write_exchange(kVs, 0x0102, 1, 'c');
  begin_link();
  for (const uint8_t request : {2, 1}) write_exchange(kVs, 0x0100, request, 'd' + 2 - request);
  write_exchange(kOther, 0x0100, 1, 'f');
  play();

  QmuxClient second(modem_->socket(), kVs);
  EXPECT_EQ(response_to(second, 0x0100, 2), 'd');
  QmuxClient first(modem_->socket(), kVs);
  const std::tuple<uint16_t, uint8_t, int> cases[] = {
      {0x0100, 1, 'a'}, {0x0100, 1, 'b'}, {0x0100, 1, 'b'},  // the last one again
      {0x0100, 2, 'd'},                                      // of another client
      {0x0102, 3, 'c'},                                      // of the same message
      {0x0103, 1, -94},
  };
  for (const auto& [message, request, response] : cases) EXPECT_EQ(response_to(first, message, request), response);
  first.send(first.request(0x0101, argument(1)));
  EXPECT_EQ(response_to(first, 0x0102, 1), 'c') << "the request before has no response";
  EXPECT_EQ(response_to(second, 0x0100, 1), 'e');
  QmuxClient again(modem_->socket(), kVs);
  EXPECT_EQ(response_to(again, 0x0100, 1), 'a') << "all clients are played: they begin again";
  QmuxClient other(modem_->socket(), kOther);
  EXPECT_EQ(response_to(other, 0x0100, 1), 'f');
  EXPECT_EQ(response_to(other, 0x0103, 1), -94);
  for (const char* message : {"VS READ_EFS", "DMS 0x0103"}) {
    EXPECT_EQ(modem_->line(),
              std::string("modem_sim: the capture has no message ") + message + "; the response is error 94");
  }
}

// An id that is allocated anew, and one that is used after a restart or a revocation, is a new client.
TEST_F(ReplayTest, IndicationsRestartsAndRevocationsFollowTheRequestsThatPrecedeThem) {
  begin_link();
  for (const uint8_t request : {1, 2}) write_exchange(kVs, 0x0100, request, request);
  write(kVs, 7, Kind::kIndication, kEvent, argument(1));
  write(kVs, qmi::kAllClients, Kind::kIndication, kEvent, argument(2));
  write(0, 0, Kind::kResponse, kAllocate, kSuccess + tlv(0x01, {kVs, 7}));
  write_exchange(kVs, 0x0100, 3, 3);
  write(0, 0, Kind::kIndication, kSync, {});
  write_exchange(kVs, 0x0100, 3, 4);
  write(0, 0, Kind::kIndication, kRevoke, tlv(0x01, {kVs, 7}));
  write(0, 0, Kind::kResponse, kGetVersions, kSuccess + tlv(0x01, Bytes{1, kVs} + Bytes(4)));
  write_exchange(kVs, 0x0100, 3, 5);
  play();

  QmuxClient first(modem_->socket(), kVs);
  for (const uint8_t request : {1, 2}) {
    first.send(first.request(0x0100, argument(request)));
    EXPECT_EQ(first.receive().value(0x10), Bytes{request}) << "indications come later";
  }
  for (const uint8_t event : {1, 2}) EXPECT_EQ(first.receive().tlvs, argument(event));
  QmuxClient second(modem_->socket(), kVs);
  EXPECT_EQ(response_to(second, 0x0100, 3), 3);
  EXPECT_EQ(second.receive().message, kSync);
  EXPECT_TRUE(wait_until([&] { return modem_->value("status", "/state") == "ready"; }));
  QmuxClient third(modem_->socket(), kVs);
  EXPECT_EQ(response_to(third, 0x0100, 3), 4);
  EXPECT_EQ(third.receive().message, kRevoke);
  EXPECT_TRUE(wait_until([&] { return modem_->value("status", "/services/2/up") == true; }));
  QmuxClient fourth(modem_->socket(), kVs);
  EXPECT_EQ(response_to(fourth, 0x0100, 3), 5);
}

TEST_F(ReplayTest, AllocationsFailInTheRecordedOrder) {
  begin_link();
  for (const uint8_t error : {0, 5, 0}) {
    write(0, 0, Kind::kRequest, kAllocate, argument(kVs));
    write(0, 0, Kind::kResponse, kAllocate, tlv(0x02, {uint8_t{error != 0}, 0, error, 0}));
  }
  write_exchange(kVs, 0x0100, 1, 'a');
  play();

  QmuxClient client(modem_->socket());
  modem_->command("service vs down");
  EXPECT_EQ(client.control(kAllocate, argument(kVs)).error(), 41);
  modem_->command("service vs up");
  for (const uint16_t error : {0, 5, 0, 0, 5}) EXPECT_EQ(client.control(kAllocate, argument(kVs)).error(), error);
  EXPECT_NE(client.allocate(kNas), 0);
}

TEST_F(ReplayTest, ACaptureThatIsCutIsPlayedAndOneWithoutRequestsIsRefused) {
  const std::string text = directory_.path("text");
  std::ofstream(text) << "no capture";
  expect_refusal({"--replay", directory_.path("none")}, "No such file or directory");
  expect_refusal({"--replay", text}, "is no capture (pcapng)");
  expect_refusal({"--replay", capture_}, "has no request");
  begin_link();
  write_exchange(kVs, 0x0100, 1, 'a');
  std::ofstream(capture_, std::ios::app) << "\x06";
  play();
  QmuxClient client(modem_->socket(), kVs);
  EXPECT_EQ(response_to(client, 0x0100, 1), 'a');
}

TEST_F(ReplayTest, AModemThatCannotStartDoesNotReplaceACaptureByItsTrace) {
  begin_link();
  write_exchange(kVs, 0x0100, 1, 'a');
  const std::string link = directory_.path("link");
  std::filesystem::create_hard_link(capture_, link);
  expect_refusal({"--trace", link, "--replay", capture_}, "it is the capture that --replay plays");
  expect_refusal({"--trace", capture_, "--scenario", "/none"}, "no such file");
  play();
  QmuxClient client(modem_->socket(), kVs);
  EXPECT_EQ(response_to(client, 0x0100, 1), 'a');
}

}  // namespace

}  // namespace pelmar::sim::test
