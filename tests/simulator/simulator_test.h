// A test with its own simulated modem, and a small QMUX client.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <string>
#include <vector>

#include "qmux.h"
#include "sim_process.h"
#include "unix_socket.h"

namespace pelmar::sim::test {

using Bytes = std::vector<uint8_t>;
using Kind = qmi::MessageKind;

inline constexpr uint8_t kNas = 0x03;
inline constexpr uint8_t kSar = 0x11;
inline constexpr uint8_t kVs = 0xE4;

enum ControlMessage : uint16_t { kGetVersions = 0x0021, kAllocate, kRelease, kRevoke, kSync = 0x0027 };
enum VsMessage : uint16_t { kPassThrough = 0x0000, kReadRfnv = 0x0109, kWriteRfnv };

// Little-endian, as on the wire.
template <typename Number>
Bytes bytes_of(Number number) {
  Bytes bytes(sizeof(number));
  std::memcpy(bytes.data(), &number, sizeof(number));
  return bytes;
}
inline Bytes u16(size_t value) {
  return bytes_of(static_cast<uint16_t>(value));
}
inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}
inline Bytes tlv(uint8_t type, const Bytes& value) {
  return Bytes{type} + u16(value.size()) + value;
}

// A message from the modem. The identifier is 0xFFFF if none arrived.
struct Received {
  uint8_t client = 0;
  Kind kind{};
  uint16_t transaction = 0;
  uint16_t message = 0xFFFF;
  Bytes tlvs;

  Bytes value(uint8_t type) const {
    const auto found = qmi::find_tlv(tlvs, type);
    return found ? Bytes(found->begin(), found->end()) : Bytes();
  }
  // 0xFFFF if there is no result TLV.
  uint16_t error() const {
    const Bytes result = value(qmi::kResultTlv);
    return result.size() == qmi::kResultLength ? qmi::load_u16(&result[2]) : 0xFFFF;
  }
};

class QmuxClient {
 public:
  // Allocates an id of the service. Without a service it sends control messages.
  explicit QmuxClient(const std::string& socket, uint8_t service = qmi::kControlService)
      : fd_(connect_unix(socket).fd), service_(service), id_(service == 0 ? uint8_t{0} : allocate(service)) {}

  uint8_t id() const { return id_; }
  Bytes request(uint16_t message, const Bytes& tlvs = {}) { return request_of(service_, id_, message, tlvs); }

  void send(const Bytes& bytes) {
    ssize_t count = 1;
    for (size_t sent = 0; sent < bytes.size() && count > 0; sent += static_cast<size_t>(count)) {
      count = ::send(fd_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    }
  }

  // Returns the next bytes, at most `most`; nothing if the connection ends or nothing arrives within a minute.
  Bytes receive_raw(size_t most) {
    pollfd waiting{fd_.get(), POLLIN, 0};
    Bytes bytes(most);
    const ssize_t count = poll(&waiting, 1, 60'000) == 1 ? recv(fd_.get(), bytes.data(), most, 0) : 0;
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
  }

  // Returns no message if the connection ends or none arrives within a minute.
  Received receive() {
    Bytes bytes;
    for (size_t whole = qmi::kFrameHeaderLength; bytes.size() < whole;) {
      const Bytes more = receive_raw(whole - bytes.size());
      if (more.empty()) return {};
      bytes = std::move(bytes) + more;
      if (bytes.size() >= 3) whole = 1 + size_t{qmi::load_u16(&bytes[1])};
    }
    const qmi::Front front = qmi::read_front(bytes, qmi::Direction::kFromModem);
    const auto message = qmi::read_message(front.frame);
    EXPECT_TRUE(message && message->length_agrees) << front.problem;
    if (!message) return {};
    return {front.frame.client, message->kind, message->transaction, message->id,
            Bytes(message->tlvs.begin(), message->tlvs.end())};
  }

  bool is_closed_by_modem() {
    while (!receive_raw(4096).empty()) continue;
    pollfd closed{fd_.get(), POLLIN, 0};
    return poll(&closed, 1, 0) == 1;
  }

  // Each sends a request and returns the response. Indications before it are skipped.
  Received exchange(uint16_t message, const Bytes& tlvs = {}) { return exchange_as(service_, id_, message, tlvs); }
  Received control(uint16_t message, const Bytes& tlvs = {}) { return exchange_as(0, 0, message, tlvs); }
  Received exchange_as(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs = {}) {
    send(request_of(service, client, message, tlvs));
    Received response = receive();
    while (response.kind == Kind::kIndication) response = receive();
    EXPECT_EQ(std::tuple(response.message, response.kind, response.transaction, response.client),
              std::tuple(message, Kind::kResponse, last_transaction_, client));
    return response;
  }

  uint8_t allocate(uint8_t service) {  // 0 if the modem refuses
    const Bytes value = control(kAllocate, tlv(0x01, {service})).value(0x01);
    return value.size() == 2 ? value[1] : 0;
  }
  uint16_t release(uint8_t service, uint8_t client) { return control(kRelease, tlv(0x01, {service, client})).error(); }
  void close() { fd_.reset(); }

 private:
  Bytes request_of(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs) {
    Bytes frame(qmi::kFrameHeaderLength + qmi::kMessageHeaderLength + tlvs.size());
    qmi::FrameWriter writer(qmi::Direction::kToModem, frame);
    writer.start(service, client, Kind::kRequest, ++last_transaction_, message);
    writer.add_tlvs(tlvs);
    const auto written = writer.finish();
    return Bytes(written.begin(), written.end());
  }

  UniqueFd fd_;
  uint8_t last_transaction_ = 0;
  const uint8_t service_;
  const uint8_t id_;
};

// Runs modem_sim to its end and checks its status and a part of its output.
inline void expect_end(std::vector<std::string> arguments, int status, const std::string& text) {
  arguments.insert(arguments.begin(), MODEM_SIM);
  const Outcome outcome = run_program(arguments);
  EXPECT_EQ(outcome.status, status) << outcome.output;
  EXPECT_NE(outcome.output.find(text), std::string::npos) << outcome.output;
}

class SimulatorTest : public testing::Test {
 protected:
  explicit SimulatorTest(const std::vector<std::string>& options = {}) : modem_(directory_, options) {}

  std::string path(const std::string& name) const { return directory_.path(name); }
  nlohmann::json status(const std::string& place) const { return modem_.value("status", place); }
  bool wait_for_status(const std::string& place, const nlohmann::json& value) const {
    return wait_until([&] { return status(place) == value; });
  }

  ScratchDirectory directory_;
  SimProcess modem_;
  const std::string& socket_ = modem_.socket();
};

}  // namespace pelmar::sim::test
