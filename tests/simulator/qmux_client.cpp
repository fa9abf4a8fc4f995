#include "qmux_client.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "unix_socket.h"

namespace pelmar::sim::test {

namespace {

constexpr int kPatienceMs = 60'000;

}  // namespace

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Bytes tlv(uint8_t type, const Bytes& value) {
  return Bytes{type} + bytes_of(static_cast<uint16_t>(value.size())) + value;
}

uint16_t Received::error() const {
  const Bytes result = value(0x02);
  return result.size() == 4 ? number_at<uint16_t>(result, 2) : 0xFFFF;
}

Bytes Received::value(uint8_t type) const {
  size_t end = 0;
  for (size_t at = 0; at + 3 <= tlvs.size(); at = end) {
    end = at + 3 + number_at<uint16_t>(tlvs, at + 1);
    if (tlvs[at] == type && end <= tlvs.size()) return Bytes(tlvs.data() + at + 3, tlvs.data() + end);
  }
  return {};
}

QmuxClient::QmuxClient(const std::string& socket) : fd_(connect_unix(socket).fd) {}

void QmuxClient::send(const Bytes& bytes) {
  ssize_t count = 0;
  for (size_t sent = 0; sent < bytes.size(); sent += static_cast<size_t>(count)) {
    count = ::send(fd_.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return;
  }
}

Bytes QmuxClient::request(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs) {
  ++last_transaction_;
  const Bytes header = service == 0 ? Bytes{0, last_transaction_} : Bytes{0, last_transaction_, 0};
  const Bytes body = header + bytes_of(message) + bytes_of(static_cast<uint16_t>(tlvs.size())) + tlvs;
  return Bytes{0x01} + bytes_of(static_cast<uint16_t>(body.size() + 5)) + Bytes{0x00, service, client} + body;
}

Bytes QmuxClient::receive_raw(size_t most) {
  pollfd waiting{fd_.get(), POLLIN, 0};
  Bytes bytes(most);
  if (poll(&waiting, 1, kPatienceMs) != 1) return {};
  const ssize_t count = recv(fd_.get(), bytes.data(), most, 0);
  bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
  return bytes;
}

bool QmuxClient::is_closed_by_modem() {
  while (!receive_raw(4096).empty()) {
  }
  pollfd closed{fd_.get(), POLLIN, 0};
  return poll(&closed, 1, 0) == 1;
}

Received QmuxClient::receive() {
  Bytes frame;
  for (size_t whole = 6; frame.size() < whole;) {
    const Bytes more = receive_raw(whole - frame.size());
    if (more.empty()) return {};
    frame = std::move(frame) + more;
    if (frame.size() >= 3) whole = 1 + size_t{number_at<uint16_t>(frame, 1)};
  }
  EXPECT_EQ(frame[0], 0x01);
  EXPECT_EQ(frame[3], 0x80);
  Received received{frame[4], frame[5], frame.at(6), 0, 0, {}};
  const size_t tlvs = received.service == 0 ? 12 : 13;
  received.transaction = received.service == 0 ? frame.at(7) : number_at<uint16_t>(frame, 7);
  received.message = number_at<uint16_t>(frame, tlvs - 4);
  received.tlvs.assign(frame.begin() + static_cast<ptrdiff_t>(std::min(tlvs, frame.size())), frame.end());
  return received;
}

Received QmuxClient::ask(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs) {
  send(request(service, client, message, tlvs));
  Received response = receive();
  while (response.flags == (response.service == 0 ? 2 : 4)) response = receive();
  EXPECT_EQ(response.message, message);
  EXPECT_EQ(response.flags, service == 0 ? 1 : 2);
  EXPECT_EQ(response.transaction, last_transaction_);
  EXPECT_EQ(response.client, client);
  return response;
}

uint8_t QmuxClient::allocate(uint8_t service) {
  const Bytes value = control(kAllocate, tlv(0x01, {service})).value(0x01);
  return value.size() == 2 ? value[1] : 0;
}

uint16_t QmuxClient::release(uint8_t service, uint8_t client) {
  return control(kRelease, tlv(0x01, {service, client})).error();
}

}  // namespace pelmar::sim::test
