// Notifier handles: they report a service that comes and goes.
#include <gtest/gtest.h>

#include "client_fixture.h"

namespace pelmar::platform {
namespace {

class NotifierTest : public ClientTest {
 protected:
  // Whatever tests of this process did to the service before, it is announced at once.
  void SetUp() override { connect_for_long(); }

  void connect_for_long() {
    const qmi_client_type handle = connect();
    std::this_thread::sleep_for(milliseconds(100));  // as long as it takes to count as lasting
    qmi_client_release(handle);
  }
};

TEST_F(NotifierTest, ReportsAtRegistrationAndEveryChange) {
  const qmi_client_type handle = create_notifier();
  EXPECT_EQ(events(0), (Events{"event 0"})) << "before the registration returns";
  EXPECT_EQ(qmi_client_register_notify_cb(handle, nullptr, nullptr), QMI_CLIENT_PARAM_ERR);
  modem_.services.set({});
  EXPECT_EQ(events(2).back(), "event 1");
  modem_.services.set({kNasId});
  EXPECT_EQ(events(3).back(), "event 0");
  modem_.announce_restart(1);
  events(5);
  modem_.revoke(1, kNasId, 9);
  EXPECT_EQ(events(7), (Events{"event 0", "event 1", "event 0", "event 1", "event 0", "event 1", "event 0"}));
}

TEST_F(NotifierTest, ReportsNoAbsentServiceAndMayBeReleasedByItsCallback) {
  modem_.services.set({});
  const qmi_client_type absent = create_notifier();
  EXPECT_EQ(events(0), Events{});
  on_callback_.set(qmi_client_release);
  modem_.services.set({kNasId});
  EXPECT_EQ(events(1), (Events{"event 0"}));
  EXPECT_EQ(qmi_client_release(absent), QMI_CLIENT_INVALID_CLNT);

  create_notifier();
  EXPECT_EQ(events(0).size(), 2u) << "during its registration";
  EXPECT_TRUE(modem_.comes_to_be_closed(2)) << "and looks no more";
}

// 10 ms after the first loss, then ever longer.
TEST_F(NotifierTest, AnnouncesAServiceThatDoesNotStayEverMoreSlowly) {
  const auto start = Clock::now();
  bool has_lasted = false;  // on a slow machine: the wait is short again then
  for (const int connection : {1, 3, 5, 7}) {
    const auto connected = Clock::now();
    connect_with_error_callback();
    modem_.revoke(connection, kNasId, modem_.client_ids.get().begin()->second);
    modem_.client_ids.set({});
    EXPECT_EQ(events_up_to("error -2").back(), "error -2");
    has_lasted |= Clock::now() - connected >= milliseconds(100);
    const qmi_client_type handle = create_notifier();
    EXPECT_EQ(events_up_to("event 0").back(), "event 0");
    qmi_client_release(handle);
  }
  EXPECT_TRUE(has_lasted || Clock::now() - start >= milliseconds(10 + 20 + 40 + 80));

  connect_for_long();
  const size_t count = events(0).size();
  create_notifier();
  EXPECT_EQ(events(0).size(), count + 1) << "at once again";
}

}  // namespace
}  // namespace pelmar::platform
