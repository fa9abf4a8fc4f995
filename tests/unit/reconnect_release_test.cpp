// What ends a connection that comes back by itself: a release at any moment, also under load, and the process's end.
#include <atomic>
#include <future>
#include <thread>

#include "connection_test.h"

namespace {

using namespace scripted;

using ReconnectRelease = ConnectionTest;

// A release ends a reconnection wherever it is, and what that had made. No status follows its own.
TEST_P(ReconnectRelease, EndsAReconnectionAtAnyMoment) {
  const struct {
    const char* moment;  // a status that is reported, a call of the framework or of a sleep, or between the threads
    Statuses statuses;   // before the release
    size_t left_open;    // a notifier is dropped without release
  } rows[] = {{"status 4", {4}, 0},    {"lost", {4}, 0},           {"release", {4}, 0},
              {"status 5", {4, 5}, 0}, {"status 6", {4, 5, 6}, 1}, {"announced", {4, 5, 6}, 1},
              {"sleep", {4, 5, 6}, 0}, {"connect", {4, 5, 6}, 0},  {"status 3", {4, 5, 6, 3}, 0}};
  for (const auto& row : rows) {
    for (const bool by_other_thread : {false, true}) {
      // The thread that releases a handle is not the user's.
      if (row.moment == std::string("release") && !by_other_thread) continue;
      SCOPED_TRACE(testing::Message() << row.moment << by_other_thread);
      start();
      const size_t others = open_handles();
      const qmi_client_type lost = open();
      std::future<void> other;
      bool released = false;
      const auto come_to = [&](const std::string& moment) {
        if (moment != row.moment || std::exchange(released, true)) return;
        if (!by_other_thread) return void(connection_.release());
        set_threads(Threads::kRun);
        other = std::async(std::launch::async, [&] { connection_.release(); });
        set_threads(Threads::kHold);
        while (!logged("D " + connection_.name + "_release: function entry ------------->")) std::this_thread::yield();
        other.wait_for(std::chrono::milliseconds(150));  // time to get where it ends, or waits for this thread
      };
      const auto at = [&](const char* moment) {
        return [&come_to, moment](const Call&) {
          come_to(moment);
          return 0;
        };
      };
      reports.react = [&](uint32_t status) { come_to("status " + std::to_string(status)); };
      on_call["release"] = at("release");
      on_call["sleep"] = at("sleep");
      on_call["init_instance"] = [&](const Call&) {
        EXPECT_FALSE(released) << "no attempt follows the release";
        come_to("connect");
        return row.moment == std::string("sleep") ? QMI_TIMEOUT_ERR : 0;
      };
      lose_service(lost);
      come_to("lost");
      run_held();
      const qmi_client_type notifier = *connection_.notifier;
      if (notifier != nullptr) announce_service(notifier);
      come_to("announced");
      run_held();
      if (other.valid()) other.get();
      Statuses expected = row.statuses;
      expected.push_back(0);
      EXPECT_EQ(statuses(), expected);
      EXPECT_EQ(open_handles() - others, row.left_open);
      EXPECT_TRUE(connection_.is_clear());
      reports.react = nullptr;
      for (const char* const name : {"release", "sleep", "init_instance"}) on_call[name] = nullptr;
    }
  }
}

TEST_P(ReconnectRelease, LeavesAnOpeningWithoutAConnection) {
  for (const int outcome : {0, int{QMI_TIMEOUT_ERR}}) {
    start();
    on_call["init_instance"] = [&](const Call&) {
      connection_.release();
      return outcome;
    };
    EXPECT_FALSE(connection_.open(on_event)) << outcome;
    EXPECT_EQ(open_handles(), 0U) << outcome;
  }
}

// A process may end while connections are coming back.
TEST_P(ReconnectRelease, LetsTheProcessEnd) {
  const auto end_meanwhile = [&] {
    const qmi_client_type lost = open();
    std::atomic<bool> trying = false;
    on_call["init_instance"] = returns(QMI_TIMEOUT_ERR);
    on_call["sleep"] = [&](const Call&) {
      trying = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      return 0;
    };
    on_call["register_notify_cb"] = announce_at_registration;
    set_threads(Threads::kRun);
    lose_service(lost);
    while (!trying) std::this_thread::yield();
    std::exit(0);
  };
  EXPECT_EXIT(end_meanwhile(), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(, ReconnectRelease, testing::ValuesIn(kConnections + 1, std::end(kConnections)),
                         [](const auto& row) { return row.param.name; });

// All three restart over and over while two threads send through each and its owner releases it at any moment. Worker
// threads report in order, and nothing once the release has reported.
TEST(ReconnectUnderLoad, KeepsOrderAndLeavesNothing) {
  properties["persist.vendor.radio.adb_log_shell"] = properties["persist.vendor.radio.adb_log_ka"] = "0";
  const auto drive = [](const Connection& connection) {
    std::atomic<bool> ends = false;
    const auto handle_in = [](qmi_client_type& field) { return __atomic_load_n(&field, __ATOMIC_ACQUIRE); };
    const auto restart = [&] {
      qmi_client_type lost = nullptr;
      while (!ends) {
        const qmi_client_type handle = handle_in(connection.handle);
        const qmi_client_type notifier = handle_in(*connection.notifier);
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
      while (statuses_of(connection).size() < 50 + (connection.type + round) % 7) std::this_thread::yield();
      connection.release();
      ends = true;
      for (std::thread& thread : threads) thread.join();

      Statuses seen = statuses_of(connection);
      const auto released = std::find(seen.begin() + 1, seen.end(), 0U);
      for (auto at = released; at != seen.end(); ++at) EXPECT_TRUE(*at != 5 && *at != 3 && *at != 7) << *at;
      const Statuses order = {3, 4, 5, 6};
      for (auto at = seen.begin() + 1; at < released; ++at) EXPECT_EQ(*at, order[(at - seen.begin() - 1) % 4]);
      std::lock_guard<std::mutex> guard(reports.lock);
      reports.of[connection.type].clear();
    }
  };
  std::vector<std::thread> drivers;
  for (size_t i = 1; i < std::size(kConnections); ++i) drivers.emplace_back(drive, kConnections[i]);
  for (std::thread& driver : drivers) driver.join();
  for (const Connection& connection : kConnections) EXPECT_EQ(connection.handle, nullptr);
}

}  // namespace
