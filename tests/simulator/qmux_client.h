// A small QMUX client: frames out, frames in, nothing kept.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "unique_fd.h"

namespace pelmar::sim::test {

using Bytes = std::vector<uint8_t>;

inline constexpr uint8_t kNas = 0x03;
inline constexpr uint8_t kSar = 0x11;
inline constexpr uint8_t kVs = 0xE4;

// Control messages.
enum : uint16_t {
  kGetVersions = 0x0021,
  kAllocate = 0x0022,
  kRelease = 0x0023,
  kSync = 0x0027,
};

// Little-endian, as on the wire.
template <typename Number>
Bytes bytes_of(Number number) {
  Bytes bytes(sizeof(number));
  std::memcpy(bytes.data(), &number, sizeof(number));
  return bytes;
}
template <typename Number>
Number number_at(const Bytes& bytes, size_t at) {
  Number number{};
  if (at + sizeof(number) <= bytes.size()) std::memcpy(&number, bytes.data() + at, sizeof(number));
  return number;
}

Bytes operator+(Bytes left, const Bytes& right);
Bytes tlv(uint8_t type, const Bytes& value);

// A frame from the modem. One without a frame has no message.
struct Received {
  uint8_t service = 0;
  uint8_t client = 0;
  uint8_t flags = 0;
  uint16_t transaction = 0;
  uint16_t message = 0xFFFF;
  Bytes tlvs;

  // The error of the result TLV; 0xFFFF where there is none.
  uint16_t error() const;
  Bytes value(uint8_t type) const;
};

class QmuxClient {
 public:
  explicit QmuxClient(const std::string& socket);

  void send(const Bytes& bytes);
  Bytes request(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs = {});

  // No message where the connection ends, or none comes within a minute.
  Received receive();
  // Whatever comes next, up to a size; empty where the connection ends.
  Bytes receive_raw(size_t most);
  bool is_closed_by_modem();

  // Sends and waits for the response; indications that come before are skipped.
  Received ask(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs = {});
  Received control(uint16_t message, const Bytes& tlvs = {}) { return ask(0, 0, message, tlvs); }

  uint8_t allocate(uint8_t service);  // 0 where the modem gives none
  uint16_t release(uint8_t service, uint8_t client);
  void close() { fd_.reset(); }

 private:
  UniqueFd fd_;
  uint8_t last_transaction_ = 0;
};

// A client of one service, with a connection of its own.
class ServiceClient : public QmuxClient {
 public:
  ServiceClient(const std::string& socket, uint8_t service)
      : QmuxClient(socket), service_(service), id_(allocate(service)) {}
  uint8_t id() const { return id_; }
  Bytes request(uint16_t message, const Bytes& tlvs = {}) { return QmuxClient::request(service_, id_, message, tlvs); }
  Received ask(uint16_t message, const Bytes& tlvs = {}) { return QmuxClient::ask(service_, id_, message, tlvs); }

 private:
  uint8_t service_;
  uint8_t id_;
};

}  // namespace pelmar::sim::test
