// What the tests of client handles share: a scripted modem that offers NAS, and a record of the callbacks.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "nas_messages.h"
#include "qmi_client.h"
#include "scripted_modem.h"

namespace pelmar::platform {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

inline constexpr uint8_t kNasId = NAS_SERVICE_ID_V01;
inline constexpr unsigned kDrx = QMI_NAS_GET_DRX_V01;
inline const qmi_idl_service_object_type kNas = nas_get_service_object_internal_v01(1, 388, 6);
inline const auto kStale = reinterpret_cast<qmi_client_type>(uintptr_t{0xDEAD});

class ClientTest : public testing::Test {
 protected:
  using Outcome = std::pair<int, uint32_t>;  // transport code, DRX of the response

  ~ClientTest() override {
    for (const qmi_client_type handle : handles_) qmi_client_release(handle);
    EXPECT_TRUE(modem_.comes_to_hold_no_ids()) << "every client id is given back";
  }

  qmi_client_type connect(uint32_t timeout = 4) {
    qmi_client_type handle = nullptr;
    EXPECT_EQ(qmi_client_init_instance(kNas, QMI_CLIENT_INSTANCE_ANY, on_indication, this, nullptr, timeout, &handle),
              0);
    handles_.push_back(handle);
    return handle;
  }

  static int get_drx(qmi_client_type handle, nas::GetDrxResponse& response, unsigned timeout = 60'000) {
    uint8_t request = 0;
    return qmi_client_send_msg_sync(handle, kDrx, &request, 1, &response, sizeof response, timeout);
  }

  static std::future<Outcome> sender(qmi_client_type handle, unsigned timeout = 60'000) {
    return std::async(std::launch::async, [=] {
      nas::GetDrxResponse response{};
      const int error = get_drx(handle, response, timeout);
      return Outcome(error, response.drx);
    });
  }

  static int send_async(qmi_client_type handle, nas::GetDrxResponse& response, ClientTest* test) {
    uint8_t request = 0;
    return qmi_client_send_msg_async(handle, kDrx, &request, 1, &response, sizeof response, on_response, test, nullptr);
  }

  // Runs after an indication was noted, on the handle's thread.
  void set_on_indication(std::function<void(qmi_client_type)> function) {
    const std::lock_guard lock(mutex_);
    on_indication_ = std::move(function);
  }

  void note(const std::string& event) {
    const std::lock_guard lock(mutex_);
    events_.push_back(event);
    noted_.notify_all();
  }

  // All events so far, when there are `count` at least; after a minute as many as there are.
  std::vector<std::string> events(size_t count) {
    return events_when([&] { return events_.size() >= count; });
  }

  // All events so far, when this one is the last; after a minute as many as there are.
  std::vector<std::string> events_up_to(const std::string& last) {
    return events_when([&] { return !events_.empty() && events_.back() == last; });
  }

  static void on_indication(qmi_client_type handle, unsigned id, void*, unsigned length, void* data) {
    auto* const test = static_cast<ClientTest*>(data);
    test->note("indication " + std::to_string(id) + " (" + std::to_string(length) + ")");
    std::function<void(qmi_client_type)> function;
    {
      const std::lock_guard lock(test->mutex_);
      function = test->on_indication_;
    }
    if (function) function(handle);
  }

  static void on_response(qmi_client_type, unsigned id, void*, unsigned, void* data, qmi_client_error_type error) {
    static_cast<ClientTest*>(data)->note("response " + std::to_string(id) + " " + std::to_string(error));
  }

  // The main thread is the one that registers.
  static void on_error(qmi_client_type, qmi_client_error_type error, void* data) {
    auto* const test = static_cast<ClientTest*>(data);
    const bool is_caller = std::this_thread::get_id() == test->test_thread_;
    test->note("error " + std::to_string(error) + (is_caller ? " on the caller's thread" : ""));
  }

  ScriptedModem modem_{{kNasId}};
  nas::PlainResponse async_responses_[4] = {};

 private:
  template <typename Condition>
  std::vector<std::string> events_when(const Condition& condition) {
    std::unique_lock lock(mutex_);
    noted_.wait_for(lock, std::chrono::seconds(60), condition);
    return events_;
  }

  const std::thread::id test_thread_ = std::this_thread::get_id();
  std::vector<qmi_client_type> handles_;
  std::mutex mutex_;
  std::condition_variable noted_;
  std::vector<std::string> events_;
  std::function<void(qmi_client_type)> on_indication_;
};

}  // namespace pelmar::platform
