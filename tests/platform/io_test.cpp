// What the platform shares with the programs above it: names of sockets, and the environment.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "environment.h"
#include "manager_link.h"
#include "scripted_modem.h"
#include "unique_fd.h"
#include "unix_socket.h"

namespace pelmar::platform {
namespace {

TEST(UnixAddress, TakesNamesUpToTheLongest) {
  const struct {
    std::string name;
    size_t bytes;  // in the address, a path's terminator included; 0: refused
  } cases[] = {
      {"", 0},
      {"@", 0},
      {"s", 2},
      {"@s", 2},
      {std::string(107, 'p'), 108},
      {std::string(108, 'p'), 0},
      {'@' + std::string(107, 'a'), 108},
      {'@' + std::string(108, 'a'), 0},
  };
  for (const auto& [name, bytes] : cases) {
    const auto address = unix_address(name);
    EXPECT_EQ(address.has_value(), bytes > 0) << name;
    if (!address) continue;
    std::string expected = name[0] == '@' ? '\0' + name.substr(1) : name + '\0';
    EXPECT_EQ(std::string(address->socket.sun_path, address->length - offsetof(sockaddr_un, sun_path)), expected);
    EXPECT_EQ(expected.size(), bytes) << name;
  }
}

TEST(UnixSocket, AListenerThatAcceptsNobodyIsGivenUpInTimeDespiteSignals) {
  const std::string name = "@io-test-full-" + std::to_string(::getpid());
  const UniqueFd listener = listen_on(name, 0);
  const UnixConnection pending = connect_unix(name);
  ASSERT_TRUE(pending.fd);
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
  std::atomic<bool> is_done{false};
  std::thread disturber([&is_done, caller = ::pthread_self()] {
    while (!is_done) {
      ::pthread_kill(caller, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  const auto start = std::chrono::steady_clock::now();
  const UnixConnection connection = connect_unix(name);
  is_done = true;
  disturber.join();
  EXPECT_EQ(connection.error, ETIMEDOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST(UnixSocket, OnAnAbstractNameOnlyThisUserAndRootAreTrusted) {
  if (::geteuid() != 0) GTEST_SKIP() << "takes another user's identity";
  constexpr uid_t kOther = 61234;
  char directory[] = "/tmp/io-test-XXXXXX";
  ASSERT_NE(::mkdtemp(directory), nullptr);
  ASSERT_EQ(::chmod(directory, 0777), 0);
  ::umask(0);
  const std::string abstract = "@io-test-user-" + std::to_string(::getpid()), path = std::string(directory) + "/socket";
  const struct {
    std::string name;
    uid_t listener, caller;
    const char* any_user;
    int error;
    bool may_refuse;
  } cases[] = {
      {abstract, kOther, 0, "0", EPERM, false},
      {abstract, kOther, 0, "1", 0, false},
      {abstract, 0, kOther, "0", 0, true},
      {abstract, kOther, kOther, "0", 0, false},
      {abstract, kOther, kOther + 1, "1", 0, true},
      {path, kOther, 0, "0", 0, false},
      {path, 0, kOther, "0", 0, false},
  };
  for (const auto& each : cases) {
    ::setenv("PELMAR_ANY_USER", each.any_user, 1);
    ASSERT_EQ(::seteuid(each.listener), 0);
    const UniqueFd listener = listen_on(each.name, 1);
    ASSERT_EQ(::seteuid(0) + ::seteuid(each.caller), 0);
    const UnixConnection connection = connect_unix(each.name);
    const std::string refusal = connection.fd ? describe_refusal(connection.fd.get(), each.name) : "";
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(connection.error, each.error) << each.listener << ' ' << each.caller << ' ' << each.any_user;
    EXPECT_EQ(connection.problem.find("user 61234") != std::string::npos, each.error != 0) << connection.problem;
    EXPECT_EQ(!refusal.empty(), each.may_refuse) << refusal;
  }
  ::unsetenv("PELMAR_ANY_USER");
  std::filesystem::remove_all(directory);
}

TEST(Environment, AnEmptyVariableIsUnset) {
  ::setenv("PELMAR_PM_SOCKET", "", 1);
  ::setenv(kModemSocketVariable, "", 1);
  EXPECT_EQ(power::manager_socket(), "@qmi-proxy.pm");
  ::setenv(kModemSocketVariable, "@a", 1);
  EXPECT_EQ(power::manager_socket(), "@a.pm");
  ::setenv("PELMAR_PM_SOCKET", "/b", 1);
  EXPECT_EQ(power::manager_socket(), "/b");
}

}  // namespace
}  // namespace pelmar::platform
