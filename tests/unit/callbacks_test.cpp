// Callbacks that use the library. They may free clients. A thread that frees, prepares or reconnects the same clients
// must not hold a lock while it waits for a callback that may need the lock: the test would not end.
#include <algorithm>
#include <atomic>
#include <future>
#include <thread>

#include "library_test.h"
#include "nas_client.h"
#include "sar_client.h"
#include "vs_client.h"

namespace {

using namespace scripted;

std::function<void(modem_api_client_type)>& in_callback = kNewObject;  // runs in each callback; may be empty

const qmi_client_type* const kHandles[] = {&vs_client_info.client_handle, &sar_client_info.client_handle,
                                           &nas_0_client_info.client_handle, &nas_1_client_info.client_handle};

class Callbacks : public LibraryTest {
 protected:
  ~Callbacks() override { in_callback = nullptr; }

  static int32_t open(modem_api_client_type type) {
    int32_t id = -1;
    const auto run_event = [](uint32_t, const uint8_t*, uint32_t) { in_callback(MODEM_API_CLIENT_VS); };
    const auto run_notice = [](uint32_t, uint32_t from) {
      if (in_callback) in_callback(from);
    };
    EXPECT_EQ(modem_api_init_client(type, run_event, run_notice, &id), MODEM_API_SUCCESS);
    return id;
  }
  static void open_two() {
    EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
    EXPECT_EQ(open(MODEM_API_CLIENT_VS), 0);
    EXPECT_EQ(open(MODEM_API_CLIENT_SAR), 1);
  }
  static void expect_nothing_left() {
    in_callback = nullptr;
    for (const int32_t id : {0, 1, 2}) modem_api_free_client(id);
    EXPECT_THAT(live_blocks(), IsEmpty());
    EXPECT_EQ(open_handles(), 0U);
  }

  static void indicate_event() { indicate(*kHandles[0], 0x0601, bytes("01 0100 B1")); }
  static void await(const std::function<bool()>& condition) {
    while (!condition()) std::this_thread::yield();
  }
};

// A callback that frees its own client leaves the release of the handle to another thread, because a release waits for
// the handle's callbacks. A callback of another client releases it at once.
TEST_F(Callbacks, MayFreeClients) {
  for (const int32_t id : {0, 1, 2}) {
    SCOPED_TRACE(id);
    open_two();
    set_threads(Threads::kHold);
    in_callback = [&](modem_api_client_type) {
      const qmi_client_type handle = *kHandles[id];
      clear_log();
      for (int i = 0; i < 2; ++i) EXPECT_EQ(modem_api_free_client(id), MODEM_API_SUCCESS);
      EXPECT_TRUE(logged("E modem_api_free_client: client already freed"));
      EXPECT_EQ(*kHandles[id], nullptr);
      EXPECT_EQ(is_open(handle), id == 0) << "the callback is the first client's";
    };
    id < 2 ? indicate_event() : void(open(MODEM_API_CLIENT_NAS_0));
    run_held();
    expect_nothing_left();
  }
}

// If a client is freed or its service is lost, its pending commands end on the thread that releases the handle. Their
// callback may free the client again, and also the client whose callback runs on that thread.
TEST_F(Callbacks, EndPendingCommands) {
  const std::function<void()> ends[] = {[] { modem_api_free_client(0); }, [] { lose_service(*kHandles[0]); },
                                        [] { lose_service(*kHandles[1]); }};
  for (const auto& end : ends) {
    SCOPED_TRACE(&end - ends);
    open_two();
    set_threads(Threads::kHold);
    const auto run_response = [](const uint8_t* data, uint32_t, void*, uint32_t result) {
      EXPECT_EQ(data, nullptr);
      EXPECT_EQ(result, uint32_t{MODEM_API_ERR_NO_MEMORY}) << "the result of a response without bytes";
      in_callback(MODEM_API_CLIENT_VS);
    };
    EXPECT_EQ(modem_api_common_command_async(0, nullptr, 0, nullptr, run_response), MODEM_API_SUCCESS);
    std::vector<modem_api_client_type> called;
    in_callback = [&](modem_api_client_type type) {
      called.push_back(type);
      for (const int32_t id : {0, 1}) EXPECT_EQ(modem_api_free_client(id), MODEM_API_SUCCESS);
    };
    end();
    EXPECT_EQ(std::count(called.begin(), called.end(), MODEM_API_CLIENT_VS), 1);
    run_held();
    expect_nothing_left();
  }
}

// One thread frees a client and waits for its callback, which meanwhile subscribes, frees the client and initialises
// the library.
TEST_F(Callbacks, MayUseTheClientThatAnotherThreadFrees) {
  for (const modem_api_client_type type : {MODEM_API_CLIENT_VS, MODEM_API_CLIENT_SAR, MODEM_API_CLIENT_NAS_1}) {
    SCOPED_TRACE(type);
    const int32_t id = open(type);
    const qmi_client_type handle = *kHandles[type];
    std::future<modem_api_result> freed;
    in_callback = [&](modem_api_client_type) {
      if (freed.valid()) return;
      freed = std::async(std::launch::async, modem_api_free_client, id);
      await([&] { return !is_open(handle); });
      modem_api_add_modem_event(id, MODEM_API_EVENT_VS_REPORT_A);
      EXPECT_EQ(modem_api_free_client(id), MODEM_API_SUCCESS);
      EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
    };
    type == MODEM_API_CLIENT_VS ? indicate_event() : void(lose_service(handle));
    EXPECT_EQ(freed.get(), MODEM_API_SUCCESS);
    EXPECT_TRUE(logged("E modem_api_free_client: client already freed"));
    expect_nothing_left();
    clear_records();
  }
}

// A restart of the modem brings one service back while a client of another is opened; the callback of each frees the
// client of the other.
TEST_F(Callbacks, MayFreeEachOthersClients) {
  const int32_t nas = open(MODEM_API_CLIENT_NAS_0), sar = nas + 1;
  set_threads(Threads::kHold);
  lose_service(*kHandles[MODEM_API_CLIENT_NAS_0]);
  run_held();
  set_threads(Threads::kRun);
  std::atomic<int> steps{0};
  in_callback = [&](modem_api_client_type type) {
    ++steps;
    await([&] { return steps >= 2; });
    EXPECT_EQ(modem_api_free_client(type == MODEM_API_CLIENT_SAR ? nas : sar), MODEM_API_SUCCESS);
    ++steps;
    await([&] { return steps == 4; });
    EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
  };
  const auto back = std::async(std::launch::async, nas_0_client_resume_qmi_client_thread, nullptr);
  EXPECT_EQ(open(MODEM_API_CLIENT_SAR), sar);
  back.wait();
  expect_nothing_left();
}

}  // namespace
