// A test of the library over the Linux platform with a simulated modem, in this process and in others.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "modem_api.h"
#include "pelmar_log.h"
#include "sim_process.h"
#include "unix_socket.h"

namespace pelmar::system_test {

inline constexpr const char* kModemVariable = "PELMAR_MODEM";

class ModemTest : public testing::Test {
 protected:
  // The options and the socket are those of the simulated modem.
  explicit ModemTest(const std::vector<std::string>& options = {}, const std::string& socket = "") {
    std::strcpy(program_invocation_name, "/mtb");  // a name that the library serves
    pelmar_hal_close_print();
    setenv("PELMAR_PROPERTY_DIR", path("properties").c_str(), 1);
    serve(options, socket);
    setenv(kModemVariable, modem_->address().c_str(), 1);
    setenv("PELMAR_PM_SOCKET", (modem_->socket() + ".pm").c_str(), 1);
    // No other qmi-proxy runs in a new network namespace, so the platform starts one there.
    has_own_proxy_ = sim::test::transport() == "proxy" && unshare(CLONE_NEWNET) == 0;
  }

  void SetUp() override {
    if (sim::test::transport() != "proxy") return;
    if (!has_own_proxy_) GTEST_SKIP() << "only root can create a network namespace";
    if (access("/usr/libexec/qmi-proxy", X_OK) != 0) GTEST_SKIP() << "there is no qmi-proxy (package libqmi-proxy)";
  }

  ~ModemTest() override {
    if (!has_own_proxy_) return;
    const UnixConnection proxy = connect_unix("@qmi-proxy");
    const pid_t process = proxy.fd ? peer_of(proxy.fd.get()).pid : 0;
    if (process > 0) kill(process, SIGKILL);
  }

  void serve(const std::vector<std::string>& options, const std::string& socket = "") {
    modem_ = std::make_unique<sim::test::SimProcess>(directory_, options, socket);
  }
  sim::test::SimProcess& modem() { return *modem_; }
  void ctl(const std::string& command) { modem_->command(command); }
  std::string path(const std::string& name) const { return directory_.path(name); }

  static int32_t open(modem_api_client_type type, modem_api_event_cb event_cb = nullptr,
                      modem_api_status_cb status_cb = nullptr) {
    EXPECT_EQ(modem_api_init(), MODEM_API_SUCCESS);
    int32_t client = -1;
    EXPECT_EQ(modem_api_init_client(type, event_cb, status_cb, &client), MODEM_API_SUCCESS);
    return client;
  }

 private:
  sim::test::ScratchDirectory directory_;
  std::unique_ptr<sim::test::SimProcess> modem_;
  bool has_own_proxy_ = false;
};

}  // namespace pelmar::system_test
