// What tests of the client API share: a library that is set up and traces its blocks, what it told its client, and
// structures written down field by field.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "hydra_mem.h"
#include "modem_api.h"
#include "scripted_platform.h"

namespace scripted {

// Bytes in hexadecimal, grouped by spaces at will.
inline std::vector<uint8_t> bytes(std::string hex) {
  std::vector<uint8_t> result;
  std::erase(hex, ' ');
  for (size_t at = 0; at < hex.size(); at += 2) {
    result.push_back(static_cast<uint8_t>(std::stoul(hex.substr(at, 2), nullptr, 16)));
  }
  return result;
}

// A structure in memory, zero but for what is given as "offset:hexadecimal bytes", separated by spaces.
inline std::vector<uint8_t> structure(size_t size, const std::string& content) {
  std::vector<uint8_t> result(size);
  std::istringstream fields(content);
  for (std::string field; fields >> field;) {
    const std::vector<uint8_t> value = bytes(field.substr(field.find(':') + 1));
    const size_t offset = std::stoul(field);
    for (size_t i = 0; i < value.size(); ++i) result.at(offset + i) = value[i];
  }
  return result;
}

inline void PrintTo(const Call& call, std::ostream* out) {
  *out << call.name << " 0x" << std::hex << call.msg_id << " on " << call.handle << ", request";
  for (const uint8_t byte : call.request) *out << ' ' << int{byte};
  *out << std::dec << ", response of " << call.response_length << ", time-out " << call.timeout;
}

// A block of the traced allocator that is alive.
struct Block {
  uint8_t* address;
  size_t size;
  std::string function;
};

inline std::vector<Block> live_blocks() {
  static const std::regex entry(R"rx(address="0x(\w+)" size="0x(\w+)" caller_proc="[^"]*" caller_func="(\w*)")rx");
  std::vector<char> text(16384);
  EXPECT_EQ(hydra_mem_trace_dump(text.data(), static_cast<int32_t>(text.size())), 1);
  std::vector<Block> blocks;
  for (std::cregex_iterator found(text.data(), text.data() + text.size(), entry), end; found != end; ++found) {
    blocks.push_back({reinterpret_cast<uint8_t*>(std::stoull((*found)[1], nullptr, 16)),
                      static_cast<size_t>(std::stoull((*found)[2], nullptr, 16)), (*found)[3]});
  }
  return blocks;
}

// What client callbacks received, in order.
inline std::vector<std::pair<uint32_t, uint32_t>> notices;

struct Event {
  uint32_t id;
  std::vector<uint8_t> payload;
  bool operator==(const Event&) const = default;
};
inline std::vector<Event> events;

inline void on_notice(uint32_t notice, uint32_t type) {
  notices.emplace_back(notice, type);
}
inline void on_event(uint32_t id, const uint8_t* payload, uint32_t length) {
  events.push_back({id, {payload, payload + length}});
}

class LibraryTest : public testing::Test {
 protected:
  LibraryTest() {
    properties["persist.hydra.mem_trace"] = "true";
    properties["persist.vendor.radio.adb_log_shell"] = "0";
    EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
    forget();
  }

  static int32_t open(modem_api_client_type type = MODEM_API_CLIENT_VS) {
    int32_t id = -1;
    EXPECT_EQ(modem_api_init_client(type, on_event, on_notice, &id), MODEM_API_SUCCESS);
    return id;
  }

  // Leaves on record only what comes from here on.
  static void forget() {
    clear_log();
    clear_calls();
    notices.clear();
    events.clear();
  }
};

}  // namespace scripted
