// A connection to a modem that speaks QMUX, or to a proxy in front of it: frames in both directions, and exchanges with
// the modem's CTL service.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "ctl_messages.h"
#include "deadline.h"
#include "inspection.h"
#include "message_trace.h"
#include "modem_address.h"
#include "modem_device.h"
#include "qmux.h"
#include "socket_stream.h"

namespace pelmar::platform {

// Splits the bytes that come from a modem into frames.
class FrameReader {
 public:
  FrameReader();

  // The place for the next bytes from the stream. There is room until the stream is broken.
  uint8_t* space();
  size_t room() const { return qmi::kMaxFrameLength - end_; }
  void add(size_t length) { end_ += length; }

  // The next whole frame; it is valid until the next space().
  bool next(qmi::Frame& frame);

  bool is_broken() const { return is_broken_; }

  // After next() returned false: whether there are bytes of an incomplete frame.
  bool has_partial_frame() const { return begin_ < end_; }

 private:
  std::unique_ptr<uint8_t[]> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  bool is_broken_ = false;
};

// The content of an indication of the CTL service.
struct ControlIndication {
  enum { kOther, kRevoked, kRestarted } event;
  uint8_t service = 0;  // of kRevoked: the service and client id that were revoked
  uint8_t client = 0;
};

// Reads an indication of the CTL service. kOther for every other message.
ControlIndication read_control_indication(const qmi::Message& message);

// The number of CTL's transaction after this one: from 1 to 255, and then 1 again.
constexpr uint8_t next_control_transaction(uint8_t last) {
  return static_cast<uint8_t>(last % UINT8_MAX + 1);
}

// The device that the listener on a socket opens for us. A simulated modem ignores it.
inline constexpr const char* kDefaultDevice = "/dev/cdc-wdm0";

inline constexpr const char* kProxySocket = "@qmi-proxy";

class QmuxLink {
 public:
  // Connects to the modem; a proxy must then open the modem's device.
  Problem open(const ModemAddress& address, const Deadline& deadline);
  void close();
  bool is_open() const { return stream_.is_open(); }

  // The outcome of an exchange with the modem. kNoResponse: the modem does not respond in time, or is gone. kNotSent:
  // the modem cannot have received the whole request.
  enum class Outcome { kSuccess, kNoResponse, kNotSent, kClientIdsExhausted, kFailure };

  // Adds the services that the modem offers.
  Outcome get_services(std::vector<ListedService>& services, const Deadline& deadline);
  // kNoResponse also if the modem revokes the id before its response arrives; kFailure also if no client can have the
  // id.
  Outcome allocate_client_id(uint8_t service, uint8_t& client, const Deadline& deadline);
  Outcome release_client_id(uint8_t service, uint8_t client, const Deadline& deadline);
  SendStatus send_release_client_id(uint8_t service, uint8_t client);

  // Whether an exchange since the last call received an indication that the modem restarted, or that it revoked any id
  // of this service.
  bool take_restart() { return std::exchange(saw_restart_, false); }
  bool take_revocation(uint8_t service);

  // Whether an exchange received an indication that the id was revoked since its allocation began.
  bool is_revoked(uint8_t service, uint8_t client) const { return revoked_.count({service, client}) != 0; }

  // Sends a frame without waiting. After kBlocked, flush() must send the rest before the next frame.
  SendStatus send(std::span<const uint8_t> frame);
  bool has_unsent() const { return device_.device ? is_unsent_ : stream_.has_unsent(); }
  SendStatus flush(const Deadline& deadline);

  // See Connection.
  void expect_response(bool is_expected) {
    if (device_.device) expect_from_device(device_, is_expected);
  }

  SocketStream& stream() { return stream_; }
  const SocketStream& stream() const { return stream_; }
  ReadStatus read(const Deadline& deadline);
  bool next(qmi::Frame& frame);
  bool is_broken() const { return reader_.is_broken(); }

  // After next() returned false: the time at which the first part of an incomplete frame arrived.
  std::optional<Deadline::Clock::time_point> partial_since() const { return partial_since_; }

 private:
  using Bytes = std::vector<uint8_t>;

  Problem connect(const ModemAddress& address, const Deadline& deadline);
  SendStatus request(ctl::MessageId id, const Bytes& value, const Deadline& deadline);
  Outcome exchange(ctl::MessageId id, const Bytes& value, const Deadline& deadline, Bytes* response_value);
  bool take_frame(qmi::Frame& frame);

  SocketStream stream_;
  TraceLink trace_;         // of a socket; a device traces the messages of its links
  DeviceLink device_;       // the link to a device; frames are sent to it, and the stream has its socket
  bool is_unsent_ = false;  // of a device: a frame waits for flush()
  FrameReader reader_;
  std::optional<Deadline::Clock::time_point> partial_since_;
  uint8_t transaction_ = 0;
  bool saw_restart_ = false;
  std::set<std::pair<uint8_t, uint8_t>> revoked_;  // service and id; cleared by an allocation and by take_revocation()
};

}  // namespace pelmar::platform
