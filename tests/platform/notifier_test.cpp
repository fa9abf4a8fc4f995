// Notifier handles: told of a service that comes and goes.
#include <gtest/gtest.h>

#include "client_fixture.h"

namespace pelmar::platform {
namespace {

using Events = std::vector<std::string>;

class NotifierTest : public ClientTest {
 protected:
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
  modem_.announce_restart(0);
  EXPECT_EQ(events(5), (Events{"event 0", "event 1", "event 0", "event 1", "event 0"}));
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
  EXPECT_FALSE(modem_.is_connected(0));
}

}  // namespace
}  // namespace pelmar::platform
