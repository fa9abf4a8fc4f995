#include "qmux_client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include "io/local_socket.h"
#include "qmi_codec.h"
#include "qmux.h"

namespace pelmar::sim::test {

namespace {

uint16_t u16_at(const Bytes& bytes, size_t offset) {
  return static_cast<uint16_t>(bytes.at(offset) | bytes.at(offset + 1) << 8);
}

Bytes u16(size_t value) {
  return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

}  // namespace

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Bytes tlv(uint8_t type, const Bytes& value) {
  return Bytes{type} + u16(value.size()) + value;
}

uint16_t Received::error() const {
  const Bytes result = value(0x02);
  return result.size() == 4 ? u16_at(result, 2) : 0xFFFF;
}

Bytes Received::value(uint8_t type) const {
  const auto found = qmi::find_tlv(tlvs, type);
  return found ? Bytes(found->begin(), found->end()) : Bytes();
}

QmuxClient::QmuxClient(const std::string& socket) : fd_(connect_local(socket)) {}

void QmuxClient::send_raw(const Bytes& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = ::send(fd_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return;
    sent += static_cast<size_t>(count);
  }
}

void QmuxClient::send_request(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs) {
  ++last_transaction_;
  const Bytes header = service == 0 ? Bytes{0, last_transaction_} : Bytes{0, last_transaction_, 0};
  const Bytes body = header + u16(message) + u16(tlvs.size()) + tlvs;
  send_raw(Bytes{0x01} + u16(body.size() + 5) + Bytes{0x00, service, client} + body);
}

Bytes QmuxClient::receive_raw(size_t most, int timeout_ms) {
  pollfd waiting{fd_.get(), POLLIN, 0};
  Bytes bytes(most);
  if (poll(&waiting, 1, timeout_ms) != 1) return {};
  const ssize_t count = recv(fd_.get(), bytes.data(), most, 0);
  bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
  return bytes;
}

bool QmuxClient::is_closed_by_modem(int timeout_ms) {
  pollfd waiting{fd_.get(), POLLIN, 0};
  for (uint8_t bytes[4096]; poll(&waiting, 1, timeout_ms) == 1;) {
    if (recv(fd_.get(), bytes, sizeof bytes, 0) <= 0) return true;
  }
  return false;
}

std::optional<Received> QmuxClient::receive(int timeout_ms) {
  Bytes frame;
  for (size_t whole = 6; frame.size() < whole;) {
    const Bytes more = receive_raw(whole - frame.size(), timeout_ms);
    if (more.empty()) return std::nullopt;
    frame = std::move(frame) + more;
    if (frame.size() >= 3) whole = 1 + size_t{u16_at(frame, 1)};
  }
  EXPECT_EQ(frame[0], 0x01);
  EXPECT_EQ(frame[3], 0x80);
  Received received{frame[4], frame[5], frame.at(6), 0, 0, {}};
  const size_t tlvs = received.service == 0 ? 12 : 13;
  received.transaction = received.service == 0 ? frame.at(7) : u16_at(frame, 7);
  received.message = u16_at(frame, tlvs - 4);
  received.tlvs.assign(frame.begin() + static_cast<ptrdiff_t>(std::min(tlvs, frame.size())), frame.end());
  return received;
}

Received QmuxClient::ask(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs) {
  send_request(service, client, message, tlvs);
  auto answer = receive();
  while (answer && answer->flags == (answer->service == 0 ? 2 : 4)) answer = receive();
  EXPECT_TRUE(answer) << "no answer to message " << message;
  if (!answer) return {};
  EXPECT_EQ(answer->flags, service == 0 ? 1 : 2);
  EXPECT_EQ(answer->transaction, last_transaction_);
  EXPECT_EQ(answer->message, message);
  EXPECT_EQ(answer->client, client);
  return *answer;
}

uint8_t QmuxClient::allocate(uint8_t service) {
  const Bytes value = control(0x0022, tlv(0x01, {service})).value(0x01);
  return value.size() == 2 ? value[1] : 0;
}

uint16_t QmuxClient::call(qmi_idl_service_object_type object, uint8_t client, uint16_t message, const void* request,
                          size_t request_size, void* response, size_t response_size) {
  Bytes bytes(size_t{16} << 10);
  size_t length = 0;
  EXPECT_EQ(qmi::encode(object, QMI_IDL_REQUEST, message, request, request_size, bytes.data(), bytes.size(), &length),
            0);
  bytes.resize(length);
  const Received answer = ask(static_cast<uint8_t>(object->service_id), client, message, bytes);
  EXPECT_EQ(
      qmi::decode(object, QMI_IDL_RESPONSE, message, answer.tlvs.data(), answer.tlvs.size(), response, response_size),
      0);
  return answer.error();
}

}  // namespace pelmar::sim::test
