// Distinguishes a client id that the modem no longer has from a message that is refused for a reason of its own.
//
// A modem refuses every message on a void id with one error, and a proxy may keep to itself that ids became void. But
// a service may use the same error of what a message names. So a response with that error is kept back while the modem
// is asked for something on the same id that no service refuses with it: refused all the same, the id is void; else,
// and where no response comes in time, what was kept back is delivered as it came.
//
// One thread at a time uses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "deadline.h"
#include "transport.h"

namespace pelmar::platform {

class ClientIdCheck {
 public:
  enum class Verdict { kDeliver, kKept, kVoid };

  Verdict look(const Message& message);

  // The next message that was kept back and is to be delivered now, valid until the next call.
  bool take_kept(Message& message);

  // What is kept back is to be delivered, whatever the modem replies.
  void settle();

  // A question is to be sent, which has that length.
  bool has_question() const { return state_ == State::kToAsk; }
  static constexpr size_t kQuestionLength = qmi::kMessageHeaderLength;
  void store_question(uint8_t* at, uint16_t transaction);

  // When what is kept back has to be delivered; none where nothing is.
  const Deadline& deadline() const { return deadline_; }

 private:
  enum class State { kSure, kToAsk, kAsked };

  struct Kept {
    Message message;
    std::vector<uint8_t> tlvs;
  };

  State state_ = State::kSure;
  std::optional<uint16_t> question_;  // transaction of the last one
  Deadline deadline_ = Deadline::none();
  std::deque<Kept> kept_;
  std::vector<uint8_t> taken_;  // the bytes of the message that was taken last
};

}  // namespace pelmar::platform
