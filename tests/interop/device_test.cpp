// The character device of the simulated modem: programs open it in turn, or share it by qmi-proxy.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <atomic>
#include <string>
#include <vector>

#include "capture.h"
#include "modem_test.h"
#include "network_access_service_v01.h"
#include "qmi_client.h"
#include "unix_socket.h"

namespace pelmar::system_test {
namespace {

using sim::test::Outcome;
using sim::test::Process;
using testing::HasSubstr;

class DeviceTest : public ModemTest {
 protected:
  explicit DeviceTest(const char* transport = "device") : ModemTest(use(transport)) {}

  static std::vector<std::string> client(const std::vector<std::string>& command) {
    std::vector<std::string> all = {MODEM_API_TEST};
    all.insert(all.end(), command.begin(), command.end());
    return all;
  }

  static Outcome run(const std::vector<std::string>& command) { return sim::test::run_program(client(command)); }

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
  EXPECT_EQ(run({"nv", "write", "7", "--text", "device"}).status, 0);
  EXPECT_THAT(run({"nv", "read", "7", "--trace", path("trace")}).output, HasSubstr("device"));
  const UniqueFd file(::open(path("trace").c_str(), O_RDONLY | O_CLOEXEC));
  qmi::CaptureReader reader(file.get());
  qmi::CapturedMessage captured;
  std::string ids;
  while (reader.next(captured) == qmi::CaptureReader::Status::kMessage) {
    ids += std::to_string(qmi::read_message(captured.frame)->id) + " ";
    EXPECT_EQ(reader.link(captured.link).transport, modem().device());
  }
  EXPECT_EQ(ids, "33 33 33 33 34 34 256 256 35 35 ") << "each message is traced once";
  EXPECT_THAT(run({"info"}).output, HasSubstr("QMUX on the character device"));
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
  EXPECT_TRUE(sim::test::wait_until([&] { return arrivals == 1; }));
  EXPECT_EQ(qmi_client_release(notifier), QMI_NO_ERR);
}

TEST_F(DeviceTest, ASecondProgramAndAWrongDeviceAreRefusedWithAReason) {
  Process follower(MODEM_API_TEST, client({"events", "--count", "1"}), true);
  std::string line = follower.line();
  while (!line.empty() && line.find("following") == std::string::npos) line = follower.line();
  EXPECT_THAT(run({"nv", "read", "7"}).output, HasSubstr("(modem_api_test) has it open"));
  const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(grantpt(terminal.get()) + unlockpt(terminal.get()), 0);
  const std::string silent = ptsname(terminal.get());
  const struct {
    const char* modem;
    const char* problem;
  } cases[] = {
      {"/dev/zero", "is it the QMI device"},
      {silent.c_str(), "is it the QMI device"},
      {"proxy:/dev/no-such-device", "no character device /dev/no-such-device\n  Start the modem"},
      {"proxy:/etc/passwd", "no character device /etc/passwd"},
  };
  const bool has_proxy = connect_unix("@qmi-proxy").error == 0;  // of this machine: it opens devices itself
  for (const auto& each : cases) {
    if (has_proxy && std::string(each.modem).starts_with("proxy:")) continue;
    const Outcome outcome = run({"--modem", each.modem, "nv", "read", "7"});
    EXPECT_EQ(outcome.status, 1) << each.modem;
    EXPECT_THAT(outcome.output, HasSubstr(each.problem)) << each.modem;
  }
  ctl("event 2 7 1 0 to broadcast");
  EXPECT_EQ(follower.end(), 0) << "an event to all clients comes over a device, too";
}

// qmi-proxy keeps the client ids of programs that were killed, and the modem has ten for each service.
TEST_F(ProxyTest, TheNextProgramReleasesTheIdsOfKilledOnes) {
  open(MODEM_API_CLIENT_NAS_0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "the proxy that it started is no child";
  for (int i = 0; i < 10; ++i) {
    Process follower(MODEM_API_TEST, client({"events"}), true);
    EXPECT_THAT(follower.line(), HasSubstr("is up"));
    follower.end(SIGKILL);
  }
  const Outcome outcome = run({"nv", "write", "7", "00"});
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_THAT(run({"info"}).output, HasSubstr("QMUX through qmi-proxy on the device " + modem().device()));
}

}  // namespace
}  // namespace pelmar::system_test
