// Callbacks that use the library while other threads free, prepare or reconnect the same clients: nobody waits for a
// callback with something in hand that the callback may ask for.
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

class Callbacks : public LibraryTest {
 protected:
  ~Callbacks() override { in_callback = nullptr; }

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

// One thread frees a client and waits for its callback, which meanwhile subscribes, frees and starts anew.
TEST_F(Callbacks, UseTheClientThatAnotherThreadIsFreeing) {
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
TEST_F(Callbacks, FreeEachOthersClients) {
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

}  // namespace
