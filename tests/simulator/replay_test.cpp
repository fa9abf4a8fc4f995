// Captures that are played, and those that cannot be.
#include <fcntl.h>

#include <fstream>
#include <memory>

#include "capture.h"
#include "simulator_test.h"

namespace pelmar::sim::test {

namespace {

constexpr uint8_t kOtherService = 0x02;
constexpr uint16_t kEvent = 0x0203;

// Writes a capture, message by message.
class Capture {
 public:
  explicit Capture(const std::string& path)
      : file_(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)),
        writer_(file_.get(), "test 1", [](int error) { FAIL() << strerror(error); }) {}

  void begin_link(const std::string& process) {
    link_ = writer_.add_link({"@modem", process}, qmi::CaptureWriter::Sharing::kOwn);
  }
  void write(uint8_t service, uint8_t client, Kind kind, uint16_t transaction, uint16_t message, const Bytes& tlvs) {
    const auto direction = kind == Kind::kRequest ? qmi::Direction::kToModem : qmi::Direction::kFromModem;
    Bytes bytes(100);
    qmi::FrameWriter frame(direction, bytes);
    frame.start(service, client, kind, transaction, message);
    frame.add_tlvs(tlvs);
    writer_.write(link_, direction, service, client, frame.finish().subspan(qmi::kFrameHeaderLength));
  }
  void exchange(uint8_t service, uint8_t client, uint16_t message, const Bytes& request, uint8_t response) {
    write(service, client, Kind::kRequest, ++transaction_, message, request);
    write(service, client, Kind::kResponse, transaction_, message, kSuccess + tlv(0x10, {response}));
  }

  static inline const Bytes kSuccess = tlv(0x02, {0, 0, 0, 0});

 private:
  UniqueFd file_;
  qmi::CaptureWriter writer_;
  uint32_t link_ = 0;
  uint16_t transaction_ = 500;
};

class ReplayTest : public testing::Test {
 protected:
  void play() {
    modem_ =
        std::make_unique<SimProcess>(directory_, std::vector<std::string>{"--replay", capture_, "--speed", "1000"});
  }
  // Returns the byte of the recorded response, or the error.
  static int response_to(QmuxClient& client, uint16_t message, const Bytes& tlvs) {
    const Received response = client.exchange(message, tlvs);
    return response.error() == 0 ? response.value(0x10).at(0) : -response.error();
  }

  ScratchDirectory directory_;
  const std::string capture_ = directory_.path("capture");
  std::unique_ptr<SimProcess> modem_;
};

const Bytes kOne = tlv(0x01, {1});
const Bytes kTwo = tlv(0x01, {2});
const Bytes kThree = tlv(0x01, {3});

TEST_F(ReplayTest, RequestsGetTheResponsesOfARecordedClient) {
  Capture capture(capture_);
  capture.begin_link("first[1]");
  capture.exchange(kVs, 7, 0x0100, kOne, 'a');
  capture.exchange(kVs, 7, 0x0100, kOne, 'b');
  capture.write(kVs, 7, Kind::kRequest, 9, 0x0101, kOne);  // without response
  capture.exchange(kVs, 7, 0x0102, kOne, 'c');
  capture.begin_link("second[2]");
  capture.exchange(kVs, 7, 0x0100, kTwo, 'd');
  capture.exchange(kVs, 7, 0x0100, kOne, 'e');
  capture.exchange(kOtherService, 1, 0x0100, kOne, 'f');
  play();

  QmuxClient second(modem_->socket(), kVs);
  EXPECT_EQ(response_to(second, 0x0100, kTwo), 'd');
  QmuxClient first(modem_->socket(), kVs);
  const std::tuple<uint16_t, Bytes, int> cases[] = {{0x0100, kOne, 'a'},   {0x0100, kOne, 'b'},
                                                    {0x0100, kOne, 'b'},    // the last one again
                                                    {0x0100, kTwo, 'd'},    // of another client
                                                    {0x0102, kThree, 'c'},  // of the same message
                                                    {0x0103, kOne, -94}};
  for (const auto& [message, tlvs, response] : cases) EXPECT_EQ(response_to(first, message, tlvs), response) << message;
  first.send(first.request(0x0101, kOne));
  EXPECT_EQ(response_to(first, 0x0102, kOne), 'c') << "a request without response stays without one";
  EXPECT_EQ(response_to(second, 0x0100, kOne), 'e');
  QmuxClient again(modem_->socket(), kVs);
  EXPECT_EQ(response_to(again, 0x0100, kOne), 'a') << "all clients are played: they begin again";
  QmuxClient other(modem_->socket(), kOtherService);
  EXPECT_EQ(response_to(other, 0x0100, kOne), 'f') << "a service that only the capture has";
  EXPECT_EQ(modem_->line(), "modem_sim: the capture has no message 0x0103 of service vs; the response is error 94");
}

// An id that is allocated anew, and one that is used after a restart, is a new client.
TEST_F(ReplayTest, IndicationsAndARestartComeAfterTheRequestsBeforeThem) {
  Capture capture(capture_);
  capture.begin_link("first[1]");
  capture.exchange(kVs, 7, 0x0100, kOne, 'a');
  capture.exchange(kVs, 7, 0x0100, kTwo, 'b');
  capture.write(kVs, 7, Kind::kIndication, 0, kEvent, kOne);
  capture.write(kVs, qmi::kAllClients, Kind::kIndication, 0, kEvent, kTwo);
  capture.write(0, 0, Kind::kResponse, 1, kAllocate, Capture::kSuccess + tlv(0x01, {kVs, 7}));
  capture.exchange(kVs, 7, 0x0100, kThree, 'c');
  capture.write(0, 0, Kind::kIndication, 0, kSync, {});
  capture.exchange(kVs, 7, 0x0100, kThree, 'd');
  play();

  QmuxClient first(modem_->socket(), kVs);
  EXPECT_EQ(response_to(first, 0x0100, kOne), 'a');
  EXPECT_EQ(response_to(first, 0x0100, kTwo), 'b') << "no indication before this";
  for (const Bytes& tlvs : {kOne, kTwo}) {
    const Received event = first.receive();
    EXPECT_EQ(std::tuple(event.kind, event.client, event.message, event.tlvs),
              std::tuple(Kind::kIndication, first.id(), kEvent, tlvs));
  }
  QmuxClient second(modem_->socket(), kVs);
  EXPECT_EQ(response_to(second, 0x0100, kThree), 'c');
  EXPECT_EQ(second.receive().message, kSync);
  EXPECT_TRUE(wait_until([&] { return modem_->value("status", "/state") == "ready"; }));
  EXPECT_EQ(modem_->value("status", "/services/2/clients"), nlohmann::json::array());
  QmuxClient third(modem_->socket(), kVs);
  EXPECT_EQ(response_to(third, 0x0100, kThree), 'd');
}

TEST_F(ReplayTest, ACaptureThatIsCutIsPlayedAndOneWithoutRequestsIsRefused) {
  const auto refusal = [&] {
    return run_program({MODEM_SIM, "serve", "--storage", directory_.path("other"), "--replay", capture_}).output;
  };
  EXPECT_NE(refusal().find("No such file or directory"), std::string::npos);
  std::ofstream(capture_) << "no capture";
  EXPECT_NE(refusal().find("is no capture"), std::string::npos);
  std::ofstream(capture_, std::ios::trunc).close();
  EXPECT_NE(refusal().find("is no capture"), std::string::npos);
  Capture capture(capture_);
  capture.begin_link("first[1]");
  EXPECT_NE(refusal().find("has no request"), std::string::npos);
  capture.exchange(kVs, 7, 0x0100, kOne, 'a');
  std::ofstream(capture_, std::ios::app) << "\x06";
  play();
  QmuxClient client(modem_->socket(), kVs);
  EXPECT_EQ(response_to(client, 0x0100, kOne), 'a');
}

}  // namespace

}  // namespace pelmar::sim::test
