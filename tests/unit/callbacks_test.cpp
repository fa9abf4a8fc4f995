// Callbacks that use the library, over both frameworks: what they may free, and that nobody who frees, prepares or
// reconnects the same clients waits for a callback with something in hand that the callback may need.
#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "library_test.h"
#include "nas_client.h"
#include "sar_client.h"
#include "vs_client.h"

namespace {

using namespace scripted;

// Never destroyed: a thread that hangs outlives main().
std::function<void(modem_api_client_type)>& in_callback = *new std::function<void(modem_api_client_type)>;

void run_event(uint32_t, const uint8_t*, uint32_t) {
  in_callback(MODEM_API_CLIENT_VS);
}
void run_notice(uint32_t, uint32_t type) {
  if (in_callback) in_callback(type);
}

uint32_t last_result;

void run_response(const uint8_t* data, uint32_t length, void*, uint32_t result) {
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(length, 0U);
  last_result = result;
  in_callback(MODEM_API_CLIENT_VS);
}

class Callbacks : public LibraryTest, public testing::WithParamInterface<Framework> {
 protected:
  Callbacks() { set_framework(GetParam()); }
  ~Callbacks() override { in_callback = nullptr; }

  static void open_two() {
    EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
    EXPECT_EQ(open(MODEM_API_CLIENT_VS), 0);
    EXPECT_EQ(open(MODEM_API_CLIENT_SAR), 1);
  }
  static void free_all() {
    in_callback = nullptr;
    for (const int32_t id : {0, 1, 2}) modem_api_free_client(id);
  }

  static void send() {
    EXPECT_EQ(modem_api_common_command_async(0, nullptr, 0, nullptr, run_response), MODEM_API_SUCCESS);
  }

  static int32_t open(modem_api_client_type type) {
    int32_t id = -1;
    EXPECT_EQ(modem_api_init_client(type, run_event, run_notice, &id), MODEM_API_SUCCESS);
    return id;
  }

  // What hangs would hang the tests: it ends them.
  static void expect_end(std::vector<std::function<void()>> works) {
    set_threads(Threads::kRun);
    std::vector<std::future<void>> ends;
    for (auto& work : works) ends.push_back(std::async(std::launch::async, std::move(work)));
    for (auto& end : ends) {
      if (end.wait_for(std::chrono::seconds(45)) == std::future_status::ready) continue;
      ADD_FAILURE() << "threads wait for each other";
      std::fflush(nullptr);
      std::_Exit(1);
    }
  }

  static void await(const std::function<bool()>& condition) {
    while (!condition()) std::this_thread::yield();
  }
};

// A release waits for the callbacks of its handle. In one of them it is left to another thread; nothing else is.
TEST_P(Callbacks, FreeClients) {
  const auto event = [] { indicate(vs_client_info.client_handle, 0x0601, bytes("01 0100 07")); };
  const auto response = [] {
    send();
    complete_send({}, QMI_INTERNAL_ERR);
  };
  const struct {
    std::function<void()> run;
    int32_t freed;
    Threads threads;
    bool left;
  } rows[] = {{event, 0, Threads::kHold, true},
              {response, 0, Threads::kHold, true},
              {event, 1, Threads::kHold, false},
              {[] { open(MODEM_API_CLIENT_NAS_1); }, 2, Threads::kHold, false},
              {event, 0, Threads::kFail, false}};  // there is no choice
  for (const auto& row : rows) {
    if (row.threads == Threads::kFail && GetParam() == Framework::kPhone) continue;
    SCOPED_TRACE(&row - rows);
    open_two();
    set_threads(row.threads);
    const qmi_client_type* const handles[] = {&vs_client_info.client_handle, &sar_client_info.client_handle,
                                              &nas_1_client_info.client_handle};
    const qmi_client_type& held = *handles[row.freed];
    qmi_client_type handle = nullptr;
    in_callback = [&](modem_api_client_type) {
      handle = held;
      for (int i = 0; i < 2; ++i) EXPECT_EQ(modem_api_free_client(row.freed), MODEM_API_SUCCESS);
      EXPECT_EQ(lines_of("modem_api_free_client").back(), "E client already freed");
      EXPECT_EQ(held, nullptr);
      EXPECT_EQ(is_open(handle), row.left);
    };
    row.run();
    run_held();
    EXPECT_FALSE(is_open(handle));
    free_all();
    EXPECT_TRUE(live_blocks().empty());
  }
}

// What is pending when a client is freed, or its service lost, ends on the phone: on the thread that releases, where
// the callback may free the client again, and the one whose callback that thread is in.
TEST_P(Callbacks, EndWhatIsPending) {
  const std::function<void()> ends[] = {[] { modem_api_free_client(0); },
                                        [] { lose_service(vs_client_info.client_handle); },
                                        [] { lose_service(sar_client_info.client_handle); }};
  for (const auto& end : ends) {
    SCOPED_TRACE(&end - ends);
    open_two();
    set_threads(Threads::kHold);
    send();
    std::vector<modem_api_client_type> called;
    in_callback = [&](modem_api_client_type type) {
      called.push_back(type);
      EXPECT_TRUE(type != MODEM_API_CLIENT_VS || last_result == MODEM_API_ERR_NO_MEMORY);
      for (const int32_t id : {0, 1}) EXPECT_EQ(modem_api_free_client(id), MODEM_API_SUCCESS);
    };
    end();
    EXPECT_EQ(std::count(called.begin(), called.end(), MODEM_API_CLIENT_VS), GetParam() == Framework::kPhone);
    run_held();
    free_all();
    EXPECT_EQ(live_blocks().size(), GetParam() == Framework::kPhone ? 0U : 2U);  // those of the exchange are lost
    for (const Block& block : live_blocks()) hydra_free_adv(block.address, "test", 0);
  }
}

// One thread frees a client and waits for its callback, which meanwhile subscribes, frees and starts anew.
TEST_P(Callbacks, UseTheClientThatAnotherThreadIsFreeing) {
  struct Row {
    modem_api_client_type type;
    qmi_client_type& handle;
    std::function<void(qmi_client_type)> call_back;
  };
  const Row rows[] = {
      {MODEM_API_CLIENT_VS, vs_client_info.client_handle, [](auto h) { indicate(h, 0x0601, bytes("01 0100 07")); }},
      {MODEM_API_CLIENT_SAR, sar_client_info.client_handle, [](auto h) { lose_service(h); }},
      {MODEM_API_CLIENT_NAS_1, nas_1_client_info.client_handle, [](auto h) { lose_service(h); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.type);
    in_callback = nullptr;
    const int32_t id = open(row.type);
    const qmi_client_type handle = row.handle;
    std::atomic<bool> entered{false};
    in_callback = [&](modem_api_client_type) {
      entered = true;
      await([&] { return !is_open(handle); });
      modem_api_add_modem_event(id, MODEM_API_EVENT_VS_REPORT_A);
      EXPECT_EQ(modem_api_free_client(id), MODEM_API_SUCCESS);
      EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
    };
    expect_end({[&] { row.call_back(handle); },
                [&] {
                  await([&] { return entered.load(); });
                  EXPECT_EQ(modem_api_free_client(id), MODEM_API_SUCCESS);
                }});
    EXPECT_TRUE(logged("E modem_api_free_client: client already freed"));
    EXPECT_TRUE(live_blocks().empty());
    forget();
  }
}

// A restart of the modem brings two services back at once; the callback of each frees the client of the other.
TEST_P(Callbacks, FreeEachOthersClients) {
  const int32_t sar = open(MODEM_API_CLIENT_SAR);
  const int32_t nas = open(MODEM_API_CLIENT_NAS_0);
  set_threads(Threads::kHold);
  for (const qmi_client_type handle : {sar_client_info.client_handle, nas_0_client_info.client_handle}) {
    lose_service(handle);
  }
  run_held();
  std::atomic<int> steps{0};
  in_callback = [&](modem_api_client_type type) {
    ++steps;
    await([&] { return steps >= 2; });
    EXPECT_EQ(modem_api_free_client(type == MODEM_API_CLIENT_SAR ? nas : sar), MODEM_API_SUCCESS);
    ++steps;
    await([&] { return steps == 4; });
    EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
  };
  expect_end(
      {[] { sar_client_resume_qmi_client_thread(nullptr); }, [] { nas_0_client_resume_qmi_client_thread(nullptr); }});
  EXPECT_EQ(open_handles(), 0U);
  EXPECT_TRUE(live_blocks().empty());
}

INSTANTIATE_TEST_SUITE_P(, Callbacks, testing::Values(Framework::kLinux, Framework::kPhone),
                         [](const auto& row) { return row.param == Framework::kPhone ? "OnThePhone" : "OnLinux"; });

}  // namespace
