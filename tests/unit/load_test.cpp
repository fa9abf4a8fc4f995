// Several threads use the library at once, while services go and come back.
#include <atomic>
#include <thread>

#include "connection_test.h"
#include "pelmar_log.h"

namespace {

using namespace scripted;
using testing::AnyOf;
using testing::IsEmpty;

class UnderLoad : public LibraryTest {
 protected:
  UnderLoad() { pelmar_hal_close_print(); }

  // Opens and frees a client of the connection over and over. Meanwhile two threads send, subscribe, report statuses
  // and restart the service.
  static void drive(const Connection& connection) {
    std::atomic<bool> ends = false;
    std::atomic<int32_t> id = -1;
    std::atomic<int> uses = 0;
    std::atomic<qmi_client_type> lost = nullptr;
    const auto use = [&] {
      const auto handle_in = [](qmi_client_type* field) {
        return field != nullptr ? __atomic_load_n(field, __ATOMIC_ACQUIRE) : nullptr;
      };
      while (!ends) {
        uint32_t request = 0, response[2];
        const int32_t code = connection.send(1, &request, sizeof(request), response, sizeof(response));
        EXPECT_THAT(code, AnyOf(0, QMI_CLIENT_INVALID_CLNT));
        // Generic: the framework was called without a handle.
        EXPECT_THAT(modem_api_notify_shutdown(id), AnyOf(0, MODEM_API_ERR_INVALID_CLIENT, MODEM_API_ERR_GENERIC));
        modem_api_add_modem_event(id, MODEM_API_EVENT_VS_REPORT_C);
        modem_api_operational_status_cb(connection.type, OPERATIONAL_STATUS_UP);
        const qmi_client_type handle = handle_in(&connection.handle), notifier = handle_in(connection.notifier);
        if (handle != nullptr && lost.exchange(handle) != handle && !lose_service(handle)) lost = nullptr;
        if (notifier != nullptr) announce_service(notifier);
        clear_calls();
        ++uses;
        std::this_thread::yield();
      }
    };
    for (unsigned round = 0; round < 20; ++round) {
      int32_t opened = -1;
      connection.init();
      EXPECT_EQ(modem_api_init_client(connection.type, nullptr, nullptr, &opened), MODEM_API_SUCCESS);
      connection.set_status_callback(on_status);
      id = opened;
      ends = false;
      uses = 0;
      std::thread users[] = {std::thread(use), std::thread(use)};
      const size_t least = connection.notifier != nullptr ? 50 + (connection.type + round) % 7 : 0;
      while (uses < 100 || statuses_of(connection).size() < least) std::this_thread::yield();
      EXPECT_EQ(modem_api_free_client(opened), MODEM_API_SUCCESS);
      ends = true;
      for (std::thread& user : users) user.join();

      const Statuses seen = statuses_of(connection);
      const auto released = std::find(seen.begin(), seen.end(), 0U);
      for (auto at = released; at != seen.end(); ++at) EXPECT_TRUE(*at != 5 && *at != 3 && *at != 7) << *at;
      const Statuses order = {4, 5, 6, 3};
      for (auto at = seen.begin(); at < released; ++at) EXPECT_EQ(*at, order[(at - seen.begin()) % 4]);
      std::lock_guard<std::mutex> guard(reports.lock);
      reports.of[connection.type].clear();
    }
    EXPECT_EQ(connection.handle, nullptr);
  }
};

// Workers report in order, and nothing once the release has reported.
TEST_F(UnderLoad, KeepsOrderAndLeavesNothing) {
  std::vector<std::thread> drivers;
  for (const Connection& connection : kConnections) drivers.emplace_back(drive, std::cref(connection));
  for (std::thread& driver : drivers) driver.join();
  EXPECT_THAT(live_blocks(), IsEmpty());
}

}  // namespace
