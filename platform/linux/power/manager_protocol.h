// The protocol between a voter and the peripheral manager, over the manager's socket: a Unix stream of small frames.
//
//   frame    u8 length of what follows (1 to 255), u8 kind, body
//   name     u8 length (1 to 63), that many bytes, none of them a control character
//   event    u8, enum pm_event; it also stands for the state that follows it
//
//   kind               body                                             response
//   0x01 register      u8 version, name (peripheral), name (voter)      response
//   0x02 vote                                                           response
//   0x03 withdraw                                                       response
//   0x04 unregister                                                     response
//   0x05 acknowledge   event                                            none
//   0x06 query status                                                   status, then an entry for each voter
//   0x81 response      i8 result (PM_RET_*), event: the state
//   0x82 event         event
//   0x83 status        event: the state, u8 number of voters
//   0x84 voter entry   u32 process, u8 votes (0, 1), name of the voter
//
// Numbers are little-endian. The manager responds in the order of the requests; events come at any time. A connection
// belongs to one voter at most, whose vote ends with it. Either end closes a connection that carries anything else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "pm-service.h"

namespace pelmar::platform::power {

inline constexpr size_t kMaxFrameBytes = 256;
inline constexpr size_t kMaxNameBytes = 63;
inline constexpr size_t kMaxVoters = 255;  // the greatest count that a status can carry

// A message without a body.
struct Empty {
  bool operator==(const Empty&) const = default;
};

// To the manager. The kinds of the alternatives are consecutive, from 0x01.
struct Register {
  std::string device;
  std::string voter;
  bool operator==(const Register&) const = default;
};
struct Vote : Empty {};
struct Withdraw : Empty {};
struct Unregister : Empty {};
struct Acknowledge {
  pm_event event;
  bool operator==(const Acknowledge&) const = default;
};
struct QueryStatus : Empty {};
using Request = std::variant<Register, Vote, Withdraw, Unregister, Acknowledge, QueryStatus>;

// From the manager. The kinds of the alternatives are consecutive, from 0x81.
struct VoterResponse {
  int result;
  pm_event state;
  bool operator==(const VoterResponse&) const = default;
};
struct Event {
  pm_event event;
  bool operator==(const Event&) const = default;
};
struct Status {
  pm_event state;
  uint8_t voters;
  bool operator==(const Status&) const = default;
};
struct VoterEntry {
  uint32_t process;
  bool votes;
  std::string voter;
  bool operator==(const VoterEntry&) const = default;
};
using Reply = std::variant<VoterResponse, Event, Status, VoterEntry>;

// Whether a frame may carry the name.
bool is_good_name(std::string_view name);

// The frame of a message. REQUIRES: is_good_name() of each name.
std::vector<uint8_t> to_frame(const Request& request);
std::vector<uint8_t> to_frame(const Reply& reply);

enum class FrameState { kIncomplete, kComplete, kBroken };

// Parses the frame at the beginning of a stream. kComplete: stores the message and the size of its frame.
FrameState parse_frame(std::span<const uint8_t> bytes, Request& request, size_t& size);
FrameState parse_frame(std::span<const uint8_t> bytes, Reply& reply, size_t& size);

// "off-line", "going on-line", ...
const char* state_text(pm_event state);

// The manager's socket that belongs to a modem's socket, if none is named.
std::string default_manager_socket(const std::string& modem_socket);

}  // namespace pelmar::platform::power
