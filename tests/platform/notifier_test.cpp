// Notifier handles: they report a service that comes and goes.
#include <gtest/gtest.h>

#include "client_fixture.h"

namespace pelmar::platform {
namespace {

using Events = std::vector<std::string>;

class NotifierTest : public ClientTest {
 protected:
  // Whatever tests of this process did to the service before, it is announced at once.
  void SetUp() override { connect_for_long(); }

  void connect_for_long() {
    const qmi_client_type handle = connect();
    std::this_thread::sleep_for(milliseconds(100));  // as long as it takes to count as lasting
    qmi_client_release(handle);
  }

  qmi_client_type create() {
    qmi_client_type handle = nullptr;
    EXPECT_EQ(qmi_client_notifier_init(kNas, nullptr, &handle), QMI_NO_ERR);
    return handle;
  }

  static void on_event(qmi_client_type handle, qmi_idl_service_object_type service, qmi_client_notify_event_type event,
                       void* data) {
    EXPECT_EQ(service, kNas);
    auto* const test = static_cast<NotifierTest*>(data);
    if (test->releases_) qmi_client_release(handle);
    test->note("event " + std::to_string(event));
  }

  bool releases_ = false;
};

TEST_F(NotifierTest, TellsAtRegistrationAndOfEveryChange) {
  const qmi_client_type handle = create();
  EXPECT_EQ(qmi_client_register_notify_cb(handle, nullptr, nullptr), QMI_CLIENT_PARAM_ERR);
  EXPECT_EQ(qmi_client_register_notify_cb(handle, on_event, this), QMI_NO_ERR);
  EXPECT_EQ(events(0), (Events{"event 0"})) << "before the registration returns";
  modem_.offer({});
  EXPECT_EQ(events(2), (Events{"event 0", "event 1"}));
  modem_.offer({kNasId});
  EXPECT_EQ(events(3), (Events{"event 0", "event 1", "event 0"}));
  modem_.announce_restart(1);
  EXPECT_EQ(events(5), (Events{"event 0", "event 1", "event 0", "event 1", "event 0"}));
  modem_.revoke(1, kNasId, 9);
  EXPECT_EQ(events(7), (Events{"event 0", "event 1", "event 0", "event 1", "event 0", "event 1", "event 0"}));
  EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
}

TEST_F(NotifierTest, TellsNothingOfAnAbsentServiceAndMayBeReleasedByItsCallback) {
  modem_.offer({});
  const qmi_client_type handle = create();
  EXPECT_EQ(qmi_client_register_notify_cb(handle, on_event, this), QMI_NO_ERR);
  EXPECT_EQ(events(0), Events{});
  releases_ = true;
  modem_.offer({kNasId});
  EXPECT_EQ(events(1), (Events{"event 0"}));
  EXPECT_EQ(qmi_client_release(handle), QMI_CLIENT_INVALID_CLNT);
}

TEST_F(NotifierTest, ReleasedDuringItsRegistrationItLooksNoMore) {
  releases_ = true;
  const qmi_client_type handle = create();
  EXPECT_EQ(qmi_client_register_notify_cb(handle, on_event, this), QMI_NO_ERR);
  EXPECT_EQ(events(1), (Events{"event 0"}));
  EXPECT_FALSE(modem_.is_connected(1));
}

// 10 ms after the first loss, then ever longer.
TEST_F(NotifierTest, AnnouncesAServiceThatDoesNotStayEverMoreSlowly) {
  constexpr int kLosses = 4;
  const auto begin = Clock::now();
  bool has_lasted = false;  // on a slow machine: the wait is short again then
  for (int loss = 0; loss < kLosses; ++loss) {
    const auto connected = Clock::now();
    const qmi_client_type client = connect();
    qmi_client_register_error_cb(client, on_error, this);
    modem_.revoke(1 + 2 * loss, kNasId, modem_.client_ids().begin()->second);
    modem_.void_client_ids();
    EXPECT_EQ(events_up_to("error -2").back(), "error -2");
    has_lasted |= Clock::now() - connected >= milliseconds(100);
    qmi_client_release(client);
    const qmi_client_type handle = create();
    EXPECT_EQ(qmi_client_register_notify_cb(handle, on_event, this), QMI_NO_ERR);
    EXPECT_EQ(events_up_to("event 0").back(), "event 0");
    qmi_client_release(handle);
  }
  EXPECT_TRUE(has_lasted || Clock::now() - begin >= milliseconds(10 + 20 + 40 + 80));

  connect_for_long();
  const size_t count = events(0).size();
  const qmi_client_type handle = create();
  EXPECT_EQ(qmi_client_register_notify_cb(handle, on_event, this), QMI_NO_ERR);
  EXPECT_EQ(events(0).size(), count + 1) << "at once again";
  qmi_client_release(handle);
}

}  // namespace
}  // namespace pelmar::platform
