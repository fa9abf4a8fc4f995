// The fixtures of the tests of handles: a record of the callbacks, and a scripted modem that offers NAS.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "client_id_record.h"
#include "nas_messages.h"
#include "qmi_client.h"
#include "scripted_modem.h"

namespace pelmar::platform {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Events = std::vector<std::string>;
using Outcome = std::pair<int, uint32_t>;  // transport code; the response's DRX, or kRefused and its QMI error

inline constexpr uint8_t kNasId = NAS_SERVICE_ID_V01;
inline constexpr unsigned kDrx = QMI_NAS_GET_DRX_V01;
inline constexpr uint32_t kRefused = 1000;
inline const Outcome kLost = {QMI_SERVICE_ERR,
                              kRefused + QMI_ERR_INTERNAL_V01};  // the zeroed response, a success, is overwritten
inline const qmi_idl_service_object_type kNas = nas_get_service_object_internal_v01(1, 388, 6);

// Handles and a record of their callbacks, over any modem.
class HandleTest : public testing::Test {
 protected:
  ~HandleTest() override { release_handles(); }
  void release_handles() {
    for (const qmi_client_type handle : std::exchange(handles_, {})) qmi_client_release(handle);
  }

  int open(qmi_client_type* handle, uint32_t timeout = 4, qmi_idl_service_object_type service = kNas) {
    return qmi_client_init_instance(service, QMI_CLIENT_INSTANCE_ANY, on_indication, this, nullptr, timeout, handle);
  }
  qmi_client_type connect(uint32_t timeout = 4) {
    qmi_client_type handle = nullptr;
    EXPECT_EQ(open(&handle, timeout), QMI_NO_ERR);
    return handles_.emplace_back(handle);
  }
  qmi_client_type connect_with_error_callback() {
    const qmi_client_type handle = connect();
    EXPECT_EQ(qmi_client_register_error_cb(handle, on_error, this), QMI_NO_ERR);
    return handle;
  }
  qmi_client_type create_notifier() {
    qmi_client_type handle = nullptr;
    EXPECT_EQ(qmi_client_notifier_init(kNas, nullptr, &handle), QMI_NO_ERR);
    EXPECT_EQ(qmi_client_register_notify_cb(handle, on_event, this), QMI_NO_ERR);
    return handles_.emplace_back(handle);
  }

  static uint32_t value_of(const nas::GetDrxResponse& response) {
    return response.header.result == QMI_RESULT_SUCCESS_V01 ? response.drx : kRefused + response.header.error;
  }
  static Outcome get_drx(qmi_client_type handle, unsigned timeout = 60'000) {
    uint8_t request = 0;
    nas::GetDrxResponse response{};
    const int error = qmi_client_send_msg_sync(handle, kDrx, &request, 1, &response, sizeof response, timeout);
    return {error, value_of(response)};
  }

  void note(const std::string& event) {
    events_.change([&](Events& events) { events.push_back(event); });
  }
  // Returns all events once there are at least `count`, or after a minute.
  Events events(size_t count) {
    events_.wait_until([=](const Events& events) { return events.size() >= count; });
    return events_.get();
  }

  static void on_indication(qmi_client_type handle, unsigned id, void*, unsigned length, void* data) {
    on_call(data, handle, "indication " + std::to_string(id) + " (" + std::to_string(length) + ")");
  }
  static void on_error(qmi_client_type handle, qmi_client_error_type error, void* data) {
    on_call(data, handle, "error " + std::to_string(error));
  }
  static void on_event(qmi_client_type handle, qmi_idl_service_object_type service, qmi_client_notify_event_type event,
                       void* data) {
    EXPECT_EQ(service, kNas);
    on_call(data, handle, "event " + std::to_string(event));
  }
  static void on_call(void* data, qmi_client_type handle, const std::string& event) {
    auto* const test = static_cast<HandleTest*>(data);
    const auto function = test->on_callback_.get();
    test->note(event);
    if (function) function(handle);
  }

  SharedValue<Events> events_;
  SharedValue<std::function<void(qmi_client_type)>> on_callback_;  // runs in each callback, after it is noted
  std::vector<qmi_client_type> handles_;
};

class ClientTest : public HandleTest {
 protected:
  // A synchronous send on its own thread, and the request that the modem received.
  struct Exchange {
    std::future<Outcome> outcome;
    ScriptedRequest request;
  };

  ~ClientTest() override {
    release_handles();
    EXPECT_TRUE(wait_for_no_ids()) << "every client id is released";
  }

  // Waits up to a minute, because a release does not wait for a slow modem.
  bool wait_for_no_ids() {
    return modem_.client_ids.wait_until([](const auto& ids) { return ids.empty(); });
  }

  int send_without_request(qmi_client_type handle) {
    return qmi_client_send_msg_sync(handle, kDrx, nullptr, 0, &async_response_, sizeof async_response_, 1000);
  }
  Exchange begin(qmi_client_type handle, unsigned timeout = 60'000) {
    auto outcome = std::async(std::launch::async, get_drx, handle, timeout);
    return {std::move(outcome), modem_.receive()};
  }
  Outcome finish(Exchange& exchange, uint8_t drx) {
    modem_.respond(exchange.request, drx_response(drx));
    return exchange.outcome.get();
  }

  int send_async(qmi_client_type handle, qmi_txn_handle* transaction = nullptr) {
    uint8_t request = 0;
    return qmi_client_send_msg_async(handle, kDrx, &request, 1, &async_response_, sizeof async_response_, on_response,
                                     this, transaction);
  }
  ScriptedRequest begin_async(qmi_client_type handle) {
    EXPECT_EQ(send_async(handle), QMI_NO_ERR);
    return modem_.receive();
  }

  static void on_response(qmi_client_type handle, unsigned id, void* bytes, unsigned length, void* data,
                          qmi_client_error_type error) {
    nas::GetDrxResponse response{};
    std::memcpy(&response, bytes, length);
    on_call(data, handle,
            "response " + std::to_string(id) + " " + std::to_string(error) + " " +
                (length == 0 ? "nothing" : std::to_string(value_of(response))));
  }

  ScriptedModem modem_{{kNasId}};
  const ClientIdRecord record_{::getenv("PELMAR_MODEM"), "/dev/cdc-wdm0"};
  nas::GetDrxResponse async_response_{};
};

// A test that runs once with the forgiving rules and once with the phone's. Each needs its own process, because the
// framework reads the variable once.
class BothRules : public ClientTest, public testing::WithParamInterface<bool> {
 protected:
  BothRules() {
    ::setenv("PELMAR_PLATFORM_RULES", GetParam() ? "phone" : "Phone", 1);  // every other value is ignored
  }

  template <typename T>
  static T by_rules(T forgiving, T phone) {
    return GetParam() ? phone : forgiving;
  }
  // By the phone's rules a loss leaves the response as it was.
  static Outcome lost() { return by_rules(kLost, Outcome(QMI_SERVICE_ERR, 0)); }
};

inline std::string name_of_rules(const testing::TestParamInfo<bool>& test) {
  return test.param ? "Phone" : "Forgiving";
}

}  // namespace pelmar::platform
