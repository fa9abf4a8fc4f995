// A tiny QMUX client: frames out, frames in, nothing kept.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qmi/service.h"
#include "unique_fd.h"

namespace pelmar::sim::test {

using Bytes = std::vector<uint8_t>;

Bytes tlv(uint8_t type, const Bytes& value);
Bytes operator+(Bytes left, const Bytes& right);

// A frame from the modem. The message has been split for its service.
struct Received {
  uint8_t service = 0;
  uint8_t client = 0;
  uint8_t flags = 0;
  uint16_t transaction = 0;
  uint16_t message = 0;
  Bytes tlvs;

  // The error of the result TLV; 0xFFFF where there is none.
  uint16_t error() const;
  Bytes value(uint8_t type) const;
};

class QmuxClient {
 public:
  explicit QmuxClient(const std::string& socket);

  void send_raw(const Bytes& bytes);
  void send_request(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs = {});

  // Nothing where no whole frame comes in that time, or the connection ends.
  std::optional<Received> receive(int timeout_ms = 60'000);
  // Whatever comes next, up to a size; empty where the connection ends.
  Bytes receive_raw(size_t most, int timeout_ms = 60'000);
  bool is_closed_by_modem(int timeout_ms = 60'000);

  // Sends and waits for the answer to it; indications on the way are skipped.
  Received ask(uint8_t service, uint8_t client, uint16_t message, const Bytes& tlvs = {});
  Received control(uint16_t message, const Bytes& tlvs = {}) { return ask(0, 0, message, tlvs); }

  // 0 where the modem gives none.
  uint8_t allocate(uint8_t service);

  // Structure in, structure out, by the service's tables. Returns the QMI error.
  template <typename Request, typename Response>
  uint16_t call(qmi_idl_service_object_type object, uint8_t client, uint16_t message, const Request& request,
                Response& response) {
    return call(object, client, message, &request, sizeof request, &response, sizeof response);
  }

  void close() { fd_.reset(); }

 private:
  uint16_t call(qmi_idl_service_object_type object, uint8_t client, uint16_t message, const void* request,
                size_t request_size, void* response, size_t response_size);

  UniqueFd fd_;
  uint8_t last_transaction_ = 0;
};

}  // namespace pelmar::sim::test
