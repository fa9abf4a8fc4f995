#include "manager_protocol.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace pelmar::platform::power {
namespace {

constexpr uint8_t kVersion = 1;

template <typename Message>
constexpr uint8_t kFirstKind = std::is_same_v<Message, Request> ? 0x01 : 0x81;

// Appends fields to a frame, whose first byte is its length.
class FrameWriter {
 public:
  explicit FrameWriter(uint8_t kind) : bytes_{0, kind} {}

  void version() { bytes_.push_back(kVersion); }
  void u8(uint8_t value) { bytes_.push_back(value); }
  void i8(int value) { bytes_.push_back(static_cast<uint8_t>(value)); }
  void u32(uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) u8(static_cast<uint8_t>(value >> shift));
  }
  void flag(bool value) { u8(value ? 1 : 0); }
  void event(pm_event value) { u8(static_cast<uint8_t>(value)); }
  void name(const std::string& text) {
    u8(static_cast<uint8_t>(text.size()));
    bytes_.insert(bytes_.end(), text.begin(), text.end());
  }

  std::vector<uint8_t> finish() {
    bytes_[0] = static_cast<uint8_t>(bytes_.size() - 1);
    return std::move(bytes_);
  }

 private:
  std::vector<uint8_t> bytes_;
};

// Reads the fields of a body. After a missing or wrong field the reader stays bad, and the fields have no meaning.
class BodyReader {
 public:
  explicit BodyReader(std::span<const uint8_t> bytes) : rest_(bytes) {}

  void version() {
    if (byte() != kVersion) is_good_ = false;
  }
  void u8(uint8_t& value) { value = byte(); }
  void i8(int& value) {
    value = byte();
    if (value > INT8_MAX) value -= 1 << 8;
  }
  // REQUIRES: the value is 0.
  void u32(uint32_t& value) {
    for (int shift = 0; shift < 32; shift += 8) value |= uint32_t{byte()} << shift;
  }
  void flag(bool& value) { value = byte(1) != 0; }
  void event(pm_event& value) { value = static_cast<pm_event>(byte(EVENT_PERIPH_IS_ONLINE)); }
  void name(std::string& text) {
    const size_t length = byte(kMaxNameBytes);
    is_good_ = is_good_ && length <= rest_.size();
    if (!is_good_) return;
    text.assign(rest_.begin(), rest_.begin() + static_cast<ptrdiff_t>(length));
    rest_ = rest_.subspan(length);
    is_good_ = is_good_name(text);
  }

  bool is_used_up() const { return is_good_ && rest_.empty(); }

 private:
  uint8_t byte(unsigned maximum = UINT8_MAX) {
    is_good_ = is_good_ && !rest_.empty() && rest_[0] <= maximum;
    if (!is_good_) return 0;
    const uint8_t value = rest_[0];
    rest_ = rest_.subspan(1);
    return value;
  }

  std::span<const uint8_t> rest_;
  bool is_good_ = true;
};

// The fields of each message's body, in their order: `body` writes or reads them. The other messages have no body.
template <typename Body, typename Message>
void visit_fields(Body&, Message&) {}
template <typename Body>
void visit_fields(Body& body, Register& names) {
  body.version();
  body.name(names.device);
  body.name(names.voter);
}
template <typename Body>
void visit_fields(Body& body, Acknowledge& acknowledge) {
  body.event(acknowledge.event);
}
template <typename Body>
void visit_fields(Body& body, VoterResponse& response) {
  body.i8(response.result);
  body.event(response.state);
}
template <typename Body>
void visit_fields(Body& body, Event& event) {
  body.event(event.event);
}
template <typename Body>
void visit_fields(Body& body, Status& status) {
  body.event(status.state);
  body.u8(status.voters);
}
template <typename Body>
void visit_fields(Body& body, VoterEntry& entry) {
  body.u32(entry.process);
  body.flag(entry.votes);
  body.name(entry.voter);
}

template <typename Message>
std::vector<uint8_t> write(Message message) {
  FrameWriter frame(static_cast<uint8_t>(kFirstKind<Message> + message.index()));
  std::visit([&](auto& alternative) { visit_fields(frame, alternative); }, message);
  return frame.finish();
}

// False for a kind that is no alternative from `kIndex` on, and for a body that does not fit its kind.
template <typename Message, size_t kIndex = 0>
bool read(uint8_t kind, BodyReader& body, Message& message) {
  if constexpr (kIndex < std::variant_size_v<Message>) {
    if (kind != kFirstKind<Message> + kIndex) return read<Message, kIndex + 1>(kind, body, message);
    std::variant_alternative_t<kIndex, Message> alternative{};
    visit_fields(body, alternative);
    if (body.is_used_up()) message = std::move(alternative);
    return body.is_used_up();
  }
  return false;
}

template <typename Message>
FrameState parse(std::span<const uint8_t> bytes, Message& message, size_t& size) {
  if (bytes.empty()) return FrameState::kIncomplete;
  const size_t frame_bytes = 1 + size_t{bytes[0]};
  if (frame_bytes < 2) return FrameState::kBroken;
  if (bytes.size() < frame_bytes) return FrameState::kIncomplete;
  BodyReader body(bytes.first(frame_bytes).subspan(2));
  if (!read(bytes[1], body, message)) return FrameState::kBroken;
  size = frame_bytes;
  return FrameState::kComplete;
}

}  // namespace

bool is_good_name(std::string_view name) {
  return !name.empty() && name.size() <= kMaxNameBytes &&
         std::all_of(name.begin(), name.end(), [](unsigned char byte) { return byte >= ' ' && byte != 0x7F; });
}

std::vector<uint8_t> to_frame(const Request& request) {
  return write(request);
}

std::vector<uint8_t> to_frame(const Reply& reply) {
  return write(reply);
}

FrameState parse_frame(std::span<const uint8_t> bytes, Request& request, size_t& size) {
  return parse(bytes, request, size);
}

FrameState parse_frame(std::span<const uint8_t> bytes, Reply& reply, size_t& size) {
  return parse(bytes, reply, size);
}

const char* state_text(pm_event state) {
  constexpr const char* kTexts[] = {"going off-line", "off-line", "going on-line", "on-line"};
  return state >= EVENT_PERIPH_GOING_OFFLINE && state <= EVENT_PERIPH_IS_ONLINE ? kTexts[state] : "";
}

std::string default_manager_socket(const std::string& modem_socket) {
  return modem_socket + ".pm";
}

}  // namespace pelmar::platform::power
