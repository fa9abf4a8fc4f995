// Operations without enough memory. Sanitizers replace malloc, so their builds omit these tests.
#include <atomic>

#include "library_test.h"
#include "sar_client.h"
#include "vs_client.h"

namespace {

std::atomic<size_t> g_failing_size{SIZE_MAX};

}  // namespace

extern "C" {

void* __libc_calloc(size_t count, size_t size);

void* calloc(size_t count, size_t size) {
  return count * size == g_failing_size ? nullptr : __libc_calloc(count, size);
}
}

namespace {

using namespace scripted;

// Runs an operation in which every allocation of exactly this size fails.
template <typename Operation>
auto without_block_of(size_t size, const Operation& operation) {
  g_failing_size = size;
  const auto result = operation();
  g_failing_size = SIZE_MAX;
  return result;
}

class Memory : public LibraryTest {};

TEST_F(Memory, EveryFailedAllocationIsReported) {
  for (const modem_api_client_type type : {0, 1, 4}) {
    const auto init = [&] { return modem_api_init_client(type, on_event, on_notice, nullptr); };
    EXPECT_EQ(without_block_of(40, init), MODEM_API_ERR_NO_MEMORY);
  }

  static std::vector<uint32_t> results;
  const auto send = [] {
    const auto on_response = [](const uint8_t*, uint32_t, void*, uint32_t result) { results.push_back(result); };
    return modem_api_common_command_async(0, nullptr, 0, nullptr, on_response);
  };
  open();
  clear_records();
  for (const size_t size : {524, 16}) EXPECT_EQ(without_block_of(size, send), MODEM_API_ERR_NO_MEMORY);
  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(results, IsEmpty());
  EXPECT_THAT(live_blocks(), SizeIs(1)) << "the open client";
  for (const auto& [length, response] : std::map<size_t, const char*>{{509, "8:FD01"}, {UINT32_MAX, "8:FFFFFFFF"}}) {
    results.clear();
    EXPECT_EQ(send(), 0);
    const auto complete = [response = response] {
      complete_send(vs_client_info.client_handle, structure(524, response));
      return results;
    };
    EXPECT_THAT(without_block_of(length, complete), ElementsAre(MODEM_API_ERR_NO_MEMORY, MODEM_API_RESP_END));
    EXPECT_THAT(live_blocks(), SizeIs(1));
  }

  sar_client_info.service_object = vs_client_info.service_object;  // its indications have a size
  open(MODEM_API_CLIENT_SAR);
  for (const qmi_client_type handle : {vs_client_info.client_handle, sar_client_info.client_handle}) {
    const auto indication = [=] { return indicate(handle, 0x0203, bytes("01 0400 A1A2A3A4 02 0100 00")); };
    EXPECT_TRUE(without_block_of(10704, indication));
  }
  EXPECT_THAT(events, IsEmpty());
  expect_golden_log();
}

}  // namespace
