// What a voter and the peripheral manager say to each other on the manager's socket, a Unix stream of small frames.
//
//   frame    u8 length of what follows (1 to 255), u8 kind, body
//   name     u8 length (1 to 63), that many bytes, none of them a control character
//   event    u8 as enum pm_event; it also stands for the state that it led to
//
//   kind               body                                             answer
//   0x01 register      u8 version, name of the peripheral, name of the voter    answer
//   0x02 vote                                                           answer
//   0x03 withdraw                                                       answer
//   0x04 unregister                                                     answer
//   0x05 acknowledge   event                                            none
//   0x06 ask status                                                     status, then an entry for each voter
//   0x81 answer        i8 result (PM_RET_*), event: the state
//   0x82 event         event
//   0x83 status        event: the state, u8 number of voters
//   0x84 voter entry   u32 process, u8 votes (0, 1), name of the voter
//
// Numbers are little-endian. The manager answers in the order of the requests; events come at any time. A connection is
// one voter at most and its vote ends with it. Either end closes a connection that brings anything else.
#pragma once

#include <compare>
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
inline constexpr size_t kMaxVoters = 255;  // that a status can tell of

// To the manager.
struct Register {
  std::string device;
  std::string voter;
  bool operator==(const Register&) const = default;
};
struct Vote {
  bool operator==(const Vote&) const = default;
};
struct Withdraw {
  bool operator==(const Withdraw&) const = default;
};
struct Unregister {
  bool operator==(const Unregister&) const = default;
};
struct Acknowledge {
  pm_event event;
  bool operator==(const Acknowledge&) const = default;
};
struct AskStatus {
  bool operator==(const AskStatus&) const = default;
};
using Request = std::variant<Register, Vote, Withdraw, Unregister, Acknowledge, AskStatus>;

// From the manager.
struct Answer {
  int result;
  pm_event state;
  bool operator==(const Answer&) const = default;
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
using Reply = std::variant<Answer, Event, Status, VoterEntry>;

bool is_good_name(std::string_view name);

// The frame of a message whose names are good.
std::vector<uint8_t> to_frame(const Request& request);
std::vector<uint8_t> to_frame(const Reply& reply);

enum class Front { kIncomplete, kComplete, kBroken };

// The message at the front of a stream, and the bytes of its frame, where it is complete.
Front take_front(std::span<const uint8_t> bytes, Request& request, size_t& size);
Front take_front(std::span<const uint8_t> bytes, Reply& reply, size_t& size);

// "off-line", "going on-line", ...
const char* state_text(pm_event state);

// The manager's socket beside a modem's, where none is named.
std::string default_manager_socket(const std::string& modem_socket);

}  // namespace pelmar::platform::power
