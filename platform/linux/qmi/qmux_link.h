// One socket connection to a QMUX proxy: frames both ways, and exchanges with the modem's CTL service.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "deadline.h"
#include "frame_reader.h"
#include "socket_stream.h"

namespace pelmar::platform {

enum class ControlMessage : uint16_t {
  kGetVersionInfo = 0x0021,
  kAllocateClientId = 0x0022,
  kReleaseClientId = 0x0023,
  kRevokeClientId = 0x0024,
  kSync = 0x0027,
  kOpenProxy = 0xFF00,
};

// What an indication of the CTL service says.
struct ControlIndication {
  enum { kOther, kRevoked, kRestarted } event;
  uint8_t service;  // kRevoked: whose client id
  uint8_t client;
};

// Of a message of the CTL service; kOther for one that is no indication.
ControlIndication read_control_indication(const qmi::Message& message);

// Where the modem is: the socket of its proxy, and the device that the proxy is to open.
std::string modem_socket();
std::string modem_device();

class QmuxLink {
 public:
  // Connects to the proxy and has it open the modem's device. False where no response comes, or one with a failure.
  bool open(const Deadline& deadline);
  void close() { stream_.close(); }
  bool is_open() const { return stream_.is_open(); }

  // Outcomes of exchanges with the modem. A modem that does not respond in time, or is gone, is kNoAnswer; one that
  // cannot have got the whole request is kNotSent.
  enum class Answer { kSuccess, kNoAnswer, kNotSent, kClientIdsExhausted, kFailure };

  // The services that the modem offers.
  Answer get_services(std::vector<uint8_t>& services, const Deadline& deadline);
  // An id that the modem takes back before its response arrives is no response; one that is no client's is a failure.
  Answer allocate_client_id(uint8_t service, uint8_t& client, const Deadline& deadline);
  Answer release_client_id(uint8_t service, uint8_t client, const Deadline& deadline);
  SendStatus send_release_client_id(uint8_t service, uint8_t client);

  // Whether exchanges since the last call came across the news that the modem restarted, or that it revoked somebody's
  // id of this service.
  bool take_restart() { return std::exchange(saw_restart_, false); }
  bool take_revocation(uint8_t service);

  // Whether the modem revoked the id since its allocation began, so far as exchanges came across that.
  bool is_revoked(uint8_t service, uint8_t client) const { return revoked_.count({service, client}) != 0; }

  SocketStream& stream() { return stream_; }
  const SocketStream& stream() const { return stream_; }
  ReadStatus read(const Deadline& deadline);
  bool next(qmi::Frame& frame);
  bool is_broken() const { return reader_.is_broken(); }

  // After next() returned false: since when a frame has been waiting for its rest.
  std::optional<Deadline::Clock::time_point> partial_since() const { return partial_since_; }

 private:
  using Bytes = std::vector<uint8_t>;

  SendStatus request(ControlMessage id, const Bytes& value, const Deadline& deadline);
  Answer exchange(ControlMessage id, const Bytes& value, const Deadline& deadline, Bytes* answer_value);

  SocketStream stream_;
  FrameReader reader_;
  std::optional<Deadline::Clock::time_point> partial_since_;
  uint8_t transaction_ = 0;
  bool saw_restart_ = false;
  std::set<std::pair<uint8_t, uint8_t>> revoked_;  // service and id, since an allocation began or they were taken
};

}  // namespace pelmar::platform
