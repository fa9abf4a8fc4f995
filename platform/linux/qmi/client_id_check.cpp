#include "client_id_check.h"

#include <utility>

#include "common_v01.h"

namespace pelmar::platform {
namespace {

// Returns which messages the service has. Every service supports it, or refuses it as an unknown message.
constexpr uint16_t kGetSupportedMessages = 0x001E;

// How long a response may be kept back.
constexpr Deadline::Milliseconds kPatience{500};

// A modem that sends responses without end is not kept back any more.
constexpr size_t kMostKept = 64;

bool has_invalid_client_id_error(const Message& message) {
  const auto result = qmi::find_tlv(message.tlvs, qmi::kResultTlv);
  return result && result->size() == qmi::kResultLength && qmi::load_u16(&(*result)[0]) != QMI_RESULT_SUCCESS_V01 &&
         qmi::load_u16(&(*result)[2]) == QMI_ERR_INVALID_CLIENT_ID_V01;
}

}  // namespace

ClientIdCheck::Verdict ClientIdCheck::look(const Message& message) {
  if (message.kind != qmi::MessageKind::kResponse) return Verdict::kDeliver;
  const bool is_refused = has_invalid_client_id_error(message);
  if (message.id == kGetSupportedMessages && message.transaction == question_) {
    if (is_refused) return Verdict::kVoid;
    question_.reset();  // the number may be that of a later request
    if (state_ == State::kAsked) settle();
    return Verdict::kKept;
  }
  if (!is_refused || kept_.size() == kMostKept) return Verdict::kDeliver;
  Kept& kept = kept_.emplace_back(Kept{message, {message.tlvs.begin(), message.tlvs.end()}});
  kept.message.kept_since = Deadline::Clock::now();
  if (state_ == State::kSure) {
    state_ = State::kToAsk;
    deadline_ = Deadline::after(kPatience);
  }
  return Verdict::kKept;
}

bool ClientIdCheck::take_kept(Message& message) {
  if (deadline_.has_passed()) settle();
  if (state_ != State::kSure || kept_.empty()) return false;
  message = kept_.front().message;
  taken_ = std::move(kept_.front().tlvs);
  message.tlvs = taken_;
  kept_.pop_front();
  return true;
}

void ClientIdCheck::store_question(uint8_t* at, uint16_t transaction) {
  qmi::store_message_header(at, qmi::MessageKind::kRequest, transaction, kGetSupportedMessages, 0);
  question_ = transaction;
  state_ = State::kAsked;
}

void ClientIdCheck::settle() {
  state_ = State::kSure;
  deadline_ = Deadline::none();
}

}  // namespace pelmar::platform
