// What the tests share: a record of the clients' callbacks, a library that is initialised and traces its blocks, and
// the golden log.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "hex_bytes.h"
#include "hydra_mem.h"
#include "modem_api.h"
#include "pelmar_utils_cmn.h"
#include "scripted_platform.h"

namespace scripted {

using namespace pelmar::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

template <typename Integer>
void put(Bytes& structure, size_t offset, Integer value) {
  ASSERT_LE(offset + sizeof(value), structure.size());
  std::memcpy(&structure[offset], &value, sizeof(value));
}

template <typename Record>
bool is_zero(const Record& record) {
  const Bytes zeros(sizeof(record));
  return std::memcmp(&record, zeros.data(), zeros.size()) == 0;
}

inline void PrintTo(const Call& call, std::ostream* out) {
  *out << call.name << " 0x" << std::hex << call.msg_id << std::dec << ", request "
       << testing::PrintToString(call.request) << ", response of " << call.response_length;
}

// A live block of the traced allocator.
struct Block {
  void* address;
  size_t size;
  char function[64];
};

inline std::vector<Block> live_blocks() {
  char text[16384];
  EXPECT_EQ(hydra_mem_trace_dump(text, sizeof(text)), 1);
  std::vector<Block> blocks;
  for (const char* at = text; (at = std::strstr(at, "address=")) != nullptr; ++at) {
    Block& block = blocks.emplace_back();
    std::sscanf(at, "address=\"0x%p\" size=\"0x%zx\" caller_proc=\"%*[^\"]\" caller_func=\"%63[^\"]\"", &block.address,
                &block.size, block.function);
  }
  return blocks;
}

// A block with the layout of CallbackRecord (modem_api_command.cpp), which the end of an asynchronous exchange frees.
inline void* callback_record(modem_api_response_cb callback, void* user_data) {
  void* const fields[] = {reinterpret_cast<void*>(callback), user_data};
  return std::memcpy(hydra_malloc_adv(sizeof(fields), __func__, __LINE__), fields, sizeof(fields));
}

// The arguments of the clients' callbacks, in order.
using Notices = std::vector<std::pair<uint32_t, uint32_t>>;
inline Notices notices;

struct Event {
  uint32_t id;
  Bytes payload;
  bool operator==(const Event&) const = default;
};
inline std::vector<Event> events;

inline void on_notice(uint32_t notice, uint32_t type) {
  notices.emplace_back(notice, type);
}
inline void on_event(uint32_t id, const uint8_t* payload, uint32_t length) {
  events.push_back({id, {payload, payload + length}});
}

// Makes the library write the lines that it writes once per process, and clears the log.
inline void log_one_time_lines() {
  pelmar_get_current_pid_name();
  pelmar_check_sub_id(0);
  pelmar_utils_get_prop_print_flag();
  clear_log();
}

class LibraryTest : public testing::Test {
 protected:
  LibraryTest() {
    properties["persist.hydra.mem_trace"] = "true";
    properties["persist.vendor.radio.adb_log_shell"] = "0";
    EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
    log_one_time_lines();
    clear_records();
    reset_golden_log();
  }

  static int32_t open(modem_api_client_type type = MODEM_API_CLIENT_VS) {
    int32_t id = -1;
    EXPECT_EQ(modem_api_init_client(type, on_event, on_notice, &id), MODEM_API_SUCCESS);
    return id;
  }

  // Opens a client of each type, whose id is its type.
  static void open_all() {
    for (modem_api_client_type type = 0; type < MODEM_API_CLIENT_TYPES; ++type) {
      EXPECT_EQ(open(type), static_cast<int32_t>(type));
    }
    clear_records();
  }

  // Clears the records of the log, calls, notices and events.
  static void clear_records() {
    clear_log();
    clear_calls();
    notices.clear();
    events.clear();
  }
};

// --- the golden log ---

// The golden log: tests call every exported function, with success and with each refusal, and compare the library's log
// line by line with a file in golden/. A line has its level, source file and function; line numbers, addresses and
// process ids are replaced. The lines of entry and exit show the calls between functions and their results.
//
// A fixture that inherits Golden compares the log of each of its tests with golden/SUITE.TEST.log. After an intended
// change of a text, run PELMAR_GOLDEN=update ./test -R unit and review the difference.

// Compares the lines since reset_golden_log() with golden/SUITE.TEST.log: all of them, or those that contain one of the
// words.
void expect_golden_log(const Lines& words = {});

// A test whose whole log is compared, without the lines that the library writes once per process.
template <typename Base>
class Golden : public Base {
 protected:
  Golden() {
    properties["persist.vendor.radio.adb_log_shell"] = "0";
    log_one_time_lines();
    reset_golden_log();
  }
  void TearDown() override {
    if (!Base::IsSkipped()) expect_golden_log(words_);
  }

  Lines words_;
};

}  // namespace scripted
