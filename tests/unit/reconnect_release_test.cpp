// What ends a connection that comes back by itself: a release at any moment, also under load, and the process's end.
#include <atomic>
#include <future>
#include <thread>

#include "reconnect_test.h"

namespace {

using namespace scripted;

using ReconnectRelease = ReconnectTest;

// A release ends a reconnection wherever it is, and what that had made.
TEST_P(ReconnectRelease, EndsWithARelease) {
  enum Place { kSuspending, kResuming, kSleeping, kConnecting, kPlaces };
  for (int place = 0; place < kPlaces; ++place) {
    for (const bool by_other_thread : {false, true}) {
      SCOPED_TRACE(testing::Message() << place << by_other_thread);
      start();
      const qmi_client_type lost = open();
      std::future<void> other;
      const auto release = [&] {
        if (!by_other_thread) return void(connection_.release());
        set_threads(Threads::kRun);
        other = std::async(std::launch::async, [&] { connection_.release(); });
        set_threads(Threads::kHold);
        while (!logged("D " + connection_.name + "_release: function entry ------------->")) std::this_thread::yield();
        other.wait_for(std::chrono::milliseconds(200));  // time to get where it ends, or waits for this thread
      };
      bool released = false;
      const auto release_once = [&] {
        if (!std::exchange(released, true)) release();
      };
      lose_service(lost);
      if (place == kSuspending) release_once();
      run_held();
      if (place != kSuspending) announce_service(last_notifier());
      if (place == kResuming) release_once();
      if (place == kSleeping) on_sleep = [&](unsigned) { release_once(); };
      on_init_instance = [&](int) {
        if (place == kConnecting) release_once();
        return released ? 0 : QMI_TIMEOUT_ERR;
      };
      run_held();
      if (other.valid()) other.get();
      EXPECT_EQ(statuses().back(), 0u);
      EXPECT_EQ(statuses().size(), place == kSuspending ? 2u : 4u);
      EXPECT_EQ(open_handles(), place == kResuming ? 1u : 0u);  // a notifier is dropped without release
      const reconnecting_client_context zero = {};
      EXPECT_EQ(std::memcmp(connection_.context, &zero, sizeof(zero)), 0);
      on_sleep = nullptr;
      on_init_instance = nullptr;
      if (place == kResuming) qmi_client_release(last_notifier());
    }
  }
}

TEST_P(ReconnectRelease, LeavesAnOpeningWithoutAConnection) {
  for (const int outcome : {0, int{QMI_TIMEOUT_ERR}}) {
    start();
    on_init_instance = [&](int) {
      connection_.release();
      return outcome;
    };
    EXPECT_FALSE(connection_.open(on_event)) << outcome;
    EXPECT_EQ(open_handles(), 0u) << outcome;
  }
}

TEST_P(ReconnectRelease, MayBeReleasedByItsStatusCallback) {
  for (const uint32_t last : {4u, 5u, 6u, 3u}) {
    SCOPED_TRACE(last);
    set_framework(Framework::kPhone);
    start();
    const qmi_client_type lost = open();
    reports.react = [&](uint32_t status) {
      if (status != last) return;
      connection_.release();
      EXPECT_EQ(held_threads(), last == 4 ? 1u : 0u);  // only the loss is a callback of the handle
    };
    lose_service(lost);
    run_held();
    if (last == 6 || last == 3) announce_service(last_notifier());
    run_held();
    EXPECT_EQ(statuses()[statuses().size() - 2], last);
    EXPECT_EQ(statuses().back(), 0u);
    EXPECT_EQ(open_handles(), last == 6 ? 1u : 0u);
    if (last == 6) qmi_client_release(last_notifier());
    reports.react = nullptr;
  }
}

// A process may end while connections are coming back.
TEST_P(ReconnectRelease, LetsTheProcessEnd) {
  const auto end_meanwhile = [&] {
    const qmi_client_type lost = open();
    std::atomic<bool> trying = false;
    on_init_instance = [](int) { return QMI_TIMEOUT_ERR; };
    on_sleep = [&](unsigned) {
      trying = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    set_threads(Threads::kRun);
    on_registered = [](const Call& call) { announce_service(call.handle); };
    lose_service(lost);
    while (!trying) std::this_thread::yield();
    std::exit(0);
  };
  EXPECT_EXIT(end_meanwhile(), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(, ReconnectRelease, testing::ValuesIn(kConnections),
                         [](const auto& row) { return row.param.name; });

// All three restart over and over while two threads send through each and its owner releases it at any moment. Worker
// threads report in order, and nothing once the release has reported.
TEST(ReconnectUnderLoad, KeepsOrderAndLeavesNothing) {
  properties["persist.vendor.radio.adb_log_shell"] = properties["persist.vendor.radio.adb_log_ka"] = "0";
  const auto drive = [](const Connection& connection, unsigned seed) {
    std::atomic<bool> ends = false;
    const auto handle_in = [](qmi_client_type& field) { return __atomic_load_n(&field, __ATOMIC_ACQUIRE); };
    const auto restart = [&] {
      qmi_client_type lost = nullptr;
      while (!ends) {
        const qmi_client_type handle = handle_in(connection.context->client_handle);
        const qmi_client_type notifier = handle_in(connection.context->notifier_handle);
        if (handle != nullptr && handle != lost && lose_service(handle)) lost = handle;
        if (notifier != nullptr) announce_service(notifier);
        std::this_thread::yield();
      }
    };
    const auto send = [&] {
      uint32_t request = 0, response[2];
      while (!ends) {
        const int32_t code = connection.send(1, &request, sizeof(request), response, sizeof(response));
        EXPECT_TRUE(code == 0 || code == QMI_CLIENT_INVALID_CLNT) << code;
        std::this_thread::yield();
      }
    };
    for (unsigned round = 0; round < 20; ++round) {
      connection.init();
      connection.set_status_callback(on_status);
      EXPECT_TRUE(connection.open(on_event));
      ends = false;
      std::thread threads[] = {std::thread(restart), std::thread(send), std::thread(send)};
      while (statuses_of(connection).size() < 50 + (seed + round) % 7) std::this_thread::yield();
      connection.release();
      ends = true;
      for (std::thread& thread : threads) thread.join();

      Statuses seen = statuses_of(connection);
      const auto released = std::find(seen.begin() + 1, seen.end(), 0u);
      for (auto at = released; at != seen.end(); ++at) EXPECT_TRUE(*at != 5 && *at != 3 && *at != 7) << *at;
      const Statuses order = {3, 4, 5, 6};
      for (auto at = seen.begin() + 1; at < released; ++at) EXPECT_EQ(*at, order[(at - seen.begin() - 1) % 4]);
      std::lock_guard<std::mutex> guard(reports.lock);
      reports.of[connection.type].clear();
    }
  };
  std::thread drivers[] = {std::thread(drive, kConnections[0], 0), std::thread(drive, kConnections[1], 3),
                           std::thread(drive, kConnections[2], 5)};
  for (std::thread& driver : drivers) driver.join();
  for (const Connection& connection : kConnections) EXPECT_EQ(connection.context->client_handle, nullptr);
}

}  // namespace
