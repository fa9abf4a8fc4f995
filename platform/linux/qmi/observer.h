// Lets a program observe its own QMI traffic: each message, and the end of each exchange. The phone's interface offers
// neither.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <span>

#include "common_v01.h"
#include "qmi_client.h"

namespace pelmar::platform {

struct Observation {
  enum class Kind { kRequest, kResponse, kIndication, kEnd };

  Kind kind;
  uint32_t service = 0;             // of a message
  uint16_t message = 0;             // its id
  std::span<const uint8_t> tlvs{};  // its content, valid only during the call
  int32_t code = 0;                 // of an end: the framework's code
  uint32_t error = 0;               // of an end with QMI_NO_ERR: the response's QMI error; 0 for a success
};

// The thread that sends or reads a message calls the observer under a lock of the handle, so the observer must not call
// the framework. It gets the end of a synchronous exchange on the sender's thread before the send returns, the end of
// an asynchronous one on the callback's thread before the callback, and the refusal of a client id on the thread that
// opens the handle.
using Observer = void (*)(const Observation&);

inline std::atomic<Observer> g_observer{nullptr};

inline void observe(const Observation& observation) {
  if (const Observer observer = g_observer.load(std::memory_order_relaxed)) observer(observation);
}

// The response's structure begins with the result header.
inline void observe_end(int32_t code, const void* response, size_t length) {
  qmi_response_type_v01 header{};
  if (code == QMI_NO_ERR && length >= sizeof header) std::memcpy(&header, response, sizeof header);
  const uint32_t error = header.result == QMI_RESULT_SUCCESS_V01 ? 0 : header.error;
  observe({.kind = Observation::Kind::kEnd, .code = code, .error = error});
}

}  // namespace pelmar::platform

// Sets the one observer of the process; null removes it.
extern "C" void pelmar_platform_observe_qmi(pelmar::platform::Observer observer);
