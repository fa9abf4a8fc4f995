// The character device of the simulated modem: programs open it in turn, or share it by qmi-proxy.
#include <fcntl.h>
#include <sys/wait.h>

#include <atomic>

#include "client_program.h"
#include "network_access_service_v01.h"
#include "qmi_client.h"

namespace pelmar::cli {
namespace {

class DeviceTest : public ClientTest {
 protected:
  explicit DeviceTest(const char* transport = "device") : ClientTest(use(transport)) {}

 private:
  static std::vector<std::string> use(const char* transport) {
    setenv("PELMAR_TEST_TRANSPORT", transport, 1);
    return {};
  }
};

class ProxyTest : public DeviceTest {
 protected:
  ProxyTest() : DeviceTest("proxy") {}
};

TEST_F(DeviceTest, ProgramsOpenTheDeviceInTurn) {
  expect({{"client nv write 7 --text device", 0, ""},
          {"client nv read 7 --trace a", 0, "device"},
          {"client trace a --json | grep -c '\"transport\":\"[^\"]*/device\"'", 0, "10\n"},
          {"client trace a | cut -d ' ' -f 6 | uniq -c | tr -s ' \n' ' '", 0,
           " 4 GET_VERSION_INFO 2 ALLOCATE_CLIENT_ID 2 READ_NV 2 RELEASE_CLIENT_ID "},
          {"client info", 0, "QMUX on the character device"}});
}

TEST_F(DeviceTest, ANotifierReportsADeviceThatComesLater) {
  modem().end(SIGTERM);
  std::atomic<int> arrivals = 0;
  qmi_client_type notifier = nullptr;
  ASSERT_EQ(qmi_client_notifier_init(nas_get_service_object_internal_v01(1, 388, 6), nullptr, &notifier), QMI_NO_ERR);
  const auto on_event = [](qmi_client_type, qmi_idl_service_object_type, qmi_client_notify_event_type event,
                           void* data) {
    if (event == QMI_CLIENT_SERVICE_COUNT_INC) ++*static_cast<std::atomic<int>*>(data);
  };
  EXPECT_EQ(qmi_client_register_notify_cb(notifier, on_event, &arrivals), QMI_NO_ERR);
  EXPECT_EQ(arrivals, 0);
  serve({});
  EXPECT_TRUE(wait_until([&] { return arrivals == 1; }));
  EXPECT_EQ(qmi_client_release(notifier), QMI_NO_ERR);
}

TEST_F(DeviceTest, ASecondProgramAndAWrongDeviceAreRefusedWithAReason) {
  Process follower = start("events --count 1");
  EXPECT_TRUE(prints(follower, "following"));
  const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(grantpt(terminal.get()) + unlockpt(terminal.get()), 0);
  const std::string read = "client nv read 7 --modem ";
  expect({{"client nv read 7", 1, "(modem_api_test) has it open"},
          {read + "/dev/zero", 1, "is it the QMI device"},
          {read + ptsname(terminal.get()), 1, "is it the QMI device"}});
  // A proxy of this machine opens devices itself.
  if (connect_unix("@qmi-proxy").error != 0) {
    expect({{read + "proxy:/dev/none", 1, "no character device /dev/none\n  Start the modem"},
            {read + "proxy:/etc/passwd", 1, "no character device /etc/passwd"}});
  }
  ctl("event 2 7 1 0 to broadcast");
  EXPECT_EQ(follower.end(), 0) << "an event to all clients comes over a device, too";
}

// qmi-proxy keeps the client ids of programs that were killed, and the modem has ten for each service.
TEST_F(ProxyTest, TheNextProgramReleasesTheIdsOfKilledOnes) {
  modem_api_free_client(open(MODEM_API_CLIENT_NAS_0));
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "the platform waits for the shell that started the proxy";
  for (int i = 0; i < 10; ++i) {
    Process follower = start("events");
    EXPECT_TRUE(prints(follower, "is up"));
    follower.end(SIGKILL);
  }
  expect({{"client nv write 7 00", 0, ""},
          {"client info", 0, "QMUX through qmi-proxy on the device " + modem().device()}});
}

}  // namespace
}  // namespace pelmar::cli
