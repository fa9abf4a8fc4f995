#include "manager_protocol.h"

#include <algorithm>
#include <optional>

namespace pelmar::platform::power {
namespace {

constexpr uint8_t kVersion = 1;

enum Kind : uint8_t {
  kRegister = 0x01,
  kVote = 0x02,
  kWithdraw = 0x03,
  kUnregister = 0x04,
  kAcknowledge = 0x05,
  kAskStatus = 0x06,
  kAnswer = 0x81,
  kEvent = 0x82,
  kStatus = 0x83,
  kVoterEntry = 0x84,
};

class FrameWriter {
 public:
  explicit FrameWriter(Kind kind) : bytes_{0, kind} {}

  FrameWriter& u8(int value) {
    bytes_.push_back(static_cast<uint8_t>(value));
    return *this;
  }
  FrameWriter& u32(uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) u8(static_cast<int>(value >> shift & 0xFF));
    return *this;
  }
  FrameWriter& name(std::string_view text) {
    u8(static_cast<int>(text.size()));
    bytes_.insert(bytes_.end(), text.begin(), text.end());
    return *this;
  }

  std::vector<uint8_t> finish() {
    bytes_[0] = static_cast<uint8_t>(bytes_.size() - 1);
    return std::move(bytes_);
  }

 private:
  std::vector<uint8_t> bytes_;
};

struct RequestWriter {
  std::vector<uint8_t> operator()(const Register& names) const {
    return FrameWriter(kRegister).u8(kVersion).name(names.device).name(names.voter).finish();
  }
  std::vector<uint8_t> operator()(const Vote&) const { return FrameWriter(kVote).finish(); }
  std::vector<uint8_t> operator()(const Withdraw&) const { return FrameWriter(kWithdraw).finish(); }
  std::vector<uint8_t> operator()(const Unregister&) const { return FrameWriter(kUnregister).finish(); }
  std::vector<uint8_t> operator()(const Acknowledge& of) const {
    return FrameWriter(kAcknowledge).u8(of.event).finish();
  }
  std::vector<uint8_t> operator()(const AskStatus&) const { return FrameWriter(kAskStatus).finish(); }
};

struct ReplyWriter {
  std::vector<uint8_t> operator()(const Answer& answer) const {
    return FrameWriter(kAnswer).u8(answer.result).u8(answer.state).finish();
  }
  std::vector<uint8_t> operator()(const Event& event) const { return FrameWriter(kEvent).u8(event.event).finish(); }
  std::vector<uint8_t> operator()(const Status& status) const {
    return FrameWriter(kStatus).u8(status.state).u8(status.voters).finish();
  }
  std::vector<uint8_t> operator()(const VoterEntry& entry) const {
    return FrameWriter(kVoterEntry).u32(entry.process).u8(entry.votes ? 1 : 0).name(entry.voter).finish();
  }
};

// Reads a body. Once something was missing or wrong it stays so, and what is read then means nothing.
class BodyReader {
 public:
  explicit BodyReader(std::span<const uint8_t> bytes) : rest_(bytes) {}

  uint8_t u8(unsigned maximum = UINT8_MAX) {
    const std::span<const uint8_t> byte = take(1);
    if (byte.empty() || byte[0] > maximum) return fail();
    return byte[0];
  }
  uint32_t u32() {
    uint32_t value = 0;
    for (int shift = 0; shift < 32; shift += 8) value |= uint32_t{u8()} << shift;
    return value;
  }
  pm_event event() { return static_cast<pm_event>(u8(EVENT_PERIPH_IS_ONLINE)); }
  std::string name() {
    const std::span<const uint8_t> bytes = take(u8(kMaxNameBytes));
    std::string text(bytes.begin(), bytes.end());
    if (!is_good_name(text)) fail();
    return text;
  }

  bool is_used_up() const { return is_good_ && rest_.empty(); }

 private:
  std::span<const uint8_t> take(size_t count) {
    if (count > rest_.size()) {
      fail();
      return {};
    }
    const auto taken = rest_.first(count);
    rest_ = rest_.subspan(count);
    return taken;
  }
  uint8_t fail() {
    is_good_ = false;
    return 0;
  }

  std::span<const uint8_t> rest_;
  bool is_good_ = true;
};

std::optional<Request> read_request(uint8_t kind, BodyReader& body) {
  switch (kind) {
    case kRegister: {
      if (body.u8() != kVersion) return std::nullopt;
      std::string device = body.name();
      return Register{std::move(device), body.name()};
    }
    case kVote:
      return Vote{};
    case kWithdraw:
      return Withdraw{};
    case kUnregister:
      return Unregister{};
    case kAcknowledge:
      return Acknowledge{body.event()};
    case kAskStatus:
      return AskStatus{};
    default:
      return std::nullopt;
  }
}

std::optional<Reply> read_reply(uint8_t kind, BodyReader& body) {
  switch (kind) {
    case kAnswer: {
      const auto result = static_cast<int8_t>(body.u8());
      return Answer{result, body.event()};
    }
    case kEvent:
      return Event{body.event()};
    case kStatus: {
      const pm_event state = body.event();
      return Status{state, body.u8()};
    }
    case kVoterEntry: {
      const uint32_t process = body.u32();
      const bool votes = body.u8(1) != 0;
      return VoterEntry{process, votes, body.name()};
    }
    default:
      return std::nullopt;
  }
}

template <typename Message>
Front take(std::span<const uint8_t> bytes, std::optional<Message> (*read)(uint8_t kind, BodyReader& body),
           Message& message, size_t& size) {
  if (bytes.empty()) return Front::kIncomplete;
  const size_t frame_bytes = 1 + size_t{bytes[0]};
  if (frame_bytes < 2) return Front::kBroken;
  if (bytes.size() < frame_bytes) return Front::kIncomplete;
  BodyReader body(bytes.first(frame_bytes).subspan(2));
  std::optional<Message> found = read(bytes[1], body);
  if (!found || !body.is_used_up()) return Front::kBroken;
  message = std::move(*found);
  size = frame_bytes;
  return Front::kComplete;
}

}  // namespace

bool is_good_name(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameBytes &&
         std::all_of(name.begin(), name.end(), [](unsigned char byte) { return byte >= ' ' && byte != 0x7F; });
}

std::vector<uint8_t> to_frame(const Request& request) {
  return std::visit(RequestWriter(), request);
}

std::vector<uint8_t> to_frame(const Reply& reply) {
  return std::visit(ReplyWriter(), reply);
}

Front take_front(std::span<const uint8_t> bytes, Request& request, size_t& size) {
  return take(bytes, read_request, request, size);
}

Front take_front(std::span<const uint8_t> bytes, Reply& reply, size_t& size) {
  return take(bytes, read_reply, reply, size);
}

const char* state_text(pm_event state) {
  switch (state) {
    case EVENT_PERIPH_GOING_OFFLINE:
      return "going off-line";
    case EVENT_PERIPH_IS_OFFLINE:
      return "off-line";
    case EVENT_PERIPH_GOING_ONLINE:
      return "going on-line";
    case EVENT_PERIPH_IS_ONLINE:
      return "on-line";
  }
  return "";
}

std::string default_manager_socket(const std::string& modem_socket) {
  return modem_socket + ".pm";
}

}  // namespace pelmar::platform::power
