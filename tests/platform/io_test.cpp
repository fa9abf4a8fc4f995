// What the platform shares with the programs above it: names of sockets, and the environment.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "environment.h"
#include "manager_link.h"
#include "socket_stream.h"
#include "unique_fd.h"
#include "unix_address.h"

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

TEST(UnixAddress, TheLongestAbstractNameIsReached) {
  std::string name = "@io-test-" + std::to_string(::getpid());
  name.resize(longest_unix_name(name), '.');
  const auto address = unix_address(name);
  ASSERT_TRUE(address);
  const UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(listener.get(), address->get(), address->length), 0);
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  EXPECT_TRUE(SocketStream().connect(name, Deadline::none()));
  EXPECT_FALSE(SocketStream().connect(name + '.', Deadline::none()));
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
