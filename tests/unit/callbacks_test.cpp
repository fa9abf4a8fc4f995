// Callbacks that use the library, over both frameworks: what they may free, and that nobody who frees, prepares or
// reconnects the same clients waits for a callback with something in hand that the callback may ask for.
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

  static qmi_client_type connection(modem_api_client_type type) {
    return type == MODEM_API_CLIENT_VS ? vs_client_info.client_handle : sar_client_info.client_handle;
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

// A release waits for the callbacks of its handle: in one of them it is left to another thread, and nothing else is.
TEST_P(Callbacks, FreeClients) {
  const auto vs_event = [] { indicate(vs_client_info.client_handle, 0x0601, bytes("01 0100 07")); };
  const auto vs_response = [] {
    send();
    complete_send({}, QMI_INTERNAL_ERR);
  };
  const auto lose_sar = [] { lose_service(sar_client_info.client_handle); };
  const auto open_sar = [] {
    modem_api_free_client(1);
    sar_init();
    open(MODEM_API_CLIENT_SAR);
  };
  const auto return_sar = [&] {
    lose_sar();
    run_held();
    announce_service(last_notifier());
    run_held();
  };
  const struct {
    const char* callback;
    std::function<void()> run;
    modem_api_client_type freed;
    bool own;     // it is a callback of the freed client's handle
    int at_call;  // which of its callbacks frees
  } rows[] = {
      {"event", vs_event, MODEM_API_CLIENT_VS, true, 1},
      {"response", vs_response, MODEM_API_CLIENT_VS, true, 1},
      {"loss", lose_sar, MODEM_API_CLIENT_SAR, true, 1},
      {"event of another client", vs_event, MODEM_API_CLIENT_SAR, false, 1},
      {"loss of another client", lose_sar, MODEM_API_CLIENT_VS, false, 1},
      {"opening", open_sar, MODEM_API_CLIENT_SAR, false, 1},
      {"return", return_sar, MODEM_API_CLIENT_SAR, false, 2},
  };
  for (const auto& row : rows) {
    for (const Threads threads : {Threads::kHold, Threads::kFail}) {
      // Where there is no thread the release has no choice; a framework of the phone then hangs.
      if (threads == Threads::kFail && (GetParam() == Framework::kPhone || row.at_call > 1)) continue;
      SCOPED_TRACE(testing::Message() << row.callback << ", threads " << static_cast<int>(threads));
      in_callback = nullptr;
      EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
      EXPECT_EQ(open(MODEM_API_CLIENT_VS), 0);
      EXPECT_EQ(open(MODEM_API_CLIENT_SAR), 1);
      set_threads(threads);
      qmi_client_type handle = nullptr;
      const bool left = row.own && threads == Threads::kHold;
      int count = 0;
      in_callback = [&](modem_api_client_type) {
        if (++count != row.at_call) return;
        handle = connection(row.freed);
        forget();
        EXPECT_EQ(modem_api_free_client(static_cast<int32_t>(row.freed)), MODEM_API_SUCCESS);
        EXPECT_TRUE(logged(std::string("D ") + (row.freed == 0 ? "vs" : "sar") +
                           "_client_release: function exit, ret(1) <-------------"));
        EXPECT_EQ(connection(row.freed), nullptr);
        EXPECT_EQ(modem_api_free_client(static_cast<int32_t>(row.freed)), MODEM_API_SUCCESS);
        EXPECT_TRUE(logged("E modem_api_free_client: client already freed"));
        EXPECT_EQ(held_threads(), left ? 1U : 0U);
        EXPECT_EQ(is_open(handle), left);
      };
      row.run();
      EXPECT_EQ(count, row.at_call);
      run_held();
      EXPECT_FALSE(is_open(handle));
      in_callback = nullptr;
      for (const int32_t id : {0, 1}) modem_api_free_client(id);
      EXPECT_TRUE(live_blocks().empty());
    }
  }
}

// What is pending when a client is freed, or its service lost, ends on the phone: on the thread that releases, where
// the callback may free the client again, and the one whose callback that thread is in.
TEST_P(Callbacks, EndWhatIsPending) {
  const bool on_phone = GetParam() == Framework::kPhone;
  const std::function<void()> ends[] = {[] { modem_api_free_client(0); },
                                        [] { lose_service(vs_client_info.client_handle); },
                                        [] {  // the loss of another client frees this one
                                          in_callback = [then = in_callback](modem_api_client_type type) {
                                            if (type == MODEM_API_CLIENT_VS) return then(type);
                                            EXPECT_EQ(modem_api_free_client(0), MODEM_API_SUCCESS);
                                          };
                                          lose_service(sar_client_info.client_handle);
                                        }};
  for (const auto& end : ends) {
    in_callback = nullptr;
    EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
    open(MODEM_API_CLIENT_VS);
    open(MODEM_API_CLIENT_SAR);
    const size_t blocks = live_blocks().size();
    const qmi_client_type handle = vs_client_info.client_handle;
    set_threads(Threads::kHold);
    int ended = 0;
    in_callback = [&](modem_api_client_type) {
      ++ended;
      EXPECT_EQ(last_result, uint32_t{MODEM_API_ERR_NO_MEMORY});
      modem_api_add_modem_event(0, MODEM_API_EVENT_VS_REPORT_A);
      for (const int32_t id : {0, 1}) EXPECT_EQ(modem_api_free_client(id), MODEM_API_SUCCESS);
    };
    send();
    send();
    EXPECT_EQ(live_blocks().size(), blocks + 4);
    end();
    run_held();
    EXPECT_EQ(ended, on_phone ? 2 : 0);
    in_callback = nullptr;
    for (const int32_t id : {0, 1}) modem_api_free_client(id);
    EXPECT_FALSE(is_open(handle));
    // Two blocks of each exchange that got no callback are lost.
    EXPECT_EQ(live_blocks().size(), on_phone ? 0U : 4U);
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
