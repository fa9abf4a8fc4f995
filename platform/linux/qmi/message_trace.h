// The trace of this process's messages: with PELMAR_TRACE=FILE, the transports write every message that they send or
// receive to a capture (capture.h). A message is written once, before it is sent or after it was parsed, so that no
// response stands before its request. A message that could not be sent is in the file as well.
//
// The first link opens the file, or reports why it cannot be written. A child of fork() opens a file of its own; it
// needs %p in the name, because its parent writes the other one. If a write fails, the trace ends with a report, and
// the program goes on.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "capture.h"
#include "qmux.h"

namespace pelmar::platform {

inline constexpr const char* kTraceVariable = "PELMAR_TRACE";

class MessageTrace;

// Where the messages of one link go. Without a trace, write() tests one word.
class TraceLink {
 public:
  using Sharing = qmi::CaptureWriter::Sharing;

  TraceLink() = default;
  // `transport`: the modem's address.
  TraceLink(const std::string& transport, Sharing sharing);

  // Whether there is a trace.
  explicit operator bool() const { return trace_ != nullptr; }

  void write(qmi::Direction direction, const qmi::Frame& frame) const {
    if (trace_ != nullptr) write_to_trace(direction, frame);
  }
  // A whole frame that this process made.
  void write_sent(std::span<const uint8_t> frame) const {
    if (trace_ != nullptr) {
      write_to_trace(qmi::Direction::kToModem, {frame[4], frame[5], frame.subspan(qmi::kFrameHeaderLength)});
    }
  }

 private:
  void write_to_trace(qmi::Direction direction, const qmi::Frame& frame) const;

  MessageTrace* trace_ = nullptr;
  uint32_t number_ = 0;
};

// Opens the trace if that is due. Returns why messages are not traced, or why the trace ended; empty: no problem. The
// program reports that to its user then; without a call, a line on standard error does.
const char* trace_problem();

}  // namespace pelmar::platform

// The same for programs.
extern "C" const char* pelmar_platform_trace_problem();
