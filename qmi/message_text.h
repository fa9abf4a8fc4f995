// One message of a capture as a line for people, or as a JSON document; with each TLV by name and value on
// request. Text is appended to a buffer, because a capture may have millions of messages. It is ASCII: other
// characters, which a file or another process may have put anywhere, are escaped.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "capture.h"

namespace pelmar::qmi {

// A captured message, its decoded header, its result, and the time since its request.
struct TracedMessage {
  const CapturedMessage& captured;
  const CaptureLink& link;
  std::optional<Message> message;   // nothing where the bytes are no message
  std::optional<uint16_t> error;    // of a response: its QMI error, 0 for a success
  std::optional<int64_t> duration;  // of a response: nanoseconds since the request
};

// The name, or the number in hexadecimal where there is none.
std::string service_text(uint8_t service);
std::string message_text(uint8_t service, uint16_t message);

struct LocalTime {
  int64_t day;  // since 1970
  int64_t ns;   // of the day
};
LocalTime local_time(int64_t time_ns);  // which is not negative

// "08:15:30.125000 mtb[1234] <- VS 1 READ_NV #5 NO_ENTRY 0.456 ms", and a line for each TLV.
void append_line(std::string& text, const TracedMessage& traced, bool has_fields);

// {"type":"message",...}, and a line end.
void append_json(std::string& text, const TracedMessage& traced, bool has_fields);

}  // namespace pelmar::qmi
