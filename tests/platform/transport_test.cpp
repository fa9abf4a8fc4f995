// The parts of the transports that need no peer: the forms of a modem's address, devices that cannot be opened, and the
// control packets of QRTR.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "modem_address.h"
#include "modem_device.h"
#include "qrtr_transport.h"

namespace pelmar::platform {
namespace {

using Kind = ModemAddress::Kind;
using Packet = QrtrControl::Kind;
using Bytes = std::vector<uint8_t>;

TEST(ModemAddress, HasTheseForms) {
  const std::string path = "/" + std::string(106, 'x'), abstract = "@" + std::string(107, 'x');  // the longest names
  const struct {
    std::string text;
    std::optional<ModemAddress> address;
  } cases[] = {
      {"/dev/null", ModemAddress{Kind::kDevice, "/dev/null"}},
      {"@qmi-proxy", ModemAddress{Kind::kProxy, "/dev/cdc-wdm0"}},
      {"proxy:/dev/cdc-wdm1", ModemAddress{Kind::kProxy, "/dev/cdc-wdm1"}},
      {"qrtr", ModemAddress{Kind::kQrtr, ""}},
      {"qrtr:0", ModemAddress{Kind::kQrtr, "", 0}},
      {"qrtr:4294967295", ModemAddress{Kind::kQrtr, "", 0xFFFFFFFF}},
      {"", std::nullopt},
      {"proxy:", std::nullopt},
      {"proxy:cdc-wdm0", std::nullopt},
      {"qrtr:4294967296", std::nullopt},
      {"@", std::nullopt},
      {path + 'x', std::nullopt},
      {abstract + 'x', std::nullopt},
  };
  for (const auto& each : cases) EXPECT_EQ(parse_modem_address(each.text), each.address) << each.text;
  for (const std::string& name : {std::string("@m"), abstract, std::string("/"), path}) {
    EXPECT_EQ(parse_modem_address(name), (ModemAddress{Kind::kQmuxSocket, name}));
  }
}

TEST(ModemDevice, OneThatSpeaksMbimOrIsOfAnotherUserIsRefusedWithAReason) {
  const std::string suffix = "." + std::to_string(::getpid());
  for (const auto& [name, problem] : {std::pair("mbim", "it speaks MBIM"), {"modem", "this user may not open it"}}) {
    const std::string path = testing::TempDir() + name + suffix;
    if (::mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) GTEST_SKIP() << "only root can make a device";
    EXPECT_EQ(::seteuid(61234), 0);
    const std::string found = connect_device(path).problem.text;
    EXPECT_EQ(::seteuid(0) + ::unlink(path.c_str()), 0);
    EXPECT_EQ(found.substr(0, std::strlen(problem)), problem);
  }
}

TEST(Qrtr, ReadsControlPackets) {
  const Bytes nas = {3, 0, 0, 0, 0x02, 0x01, 0, 0, 5, 0, 0, 0, 0x01, 0x40, 0, 0};  // version 2, instance 1
  const auto packet = [](uint8_t command, Bytes rest) {
    rest.insert(rest.begin(), {command, 0, 0, 0});
    return rest;
  };
  const Bytes cut(nas.begin(), nas.end() - 1);
  const struct {
    const char* what;
    Bytes bytes;
    QrtrControl control;
  } cases[] = {
      {"a service arrives", packet(4, nas), {Packet::kArrival, {5, 0x4001}, 3, 1, 2}},
      {"a service departs", packet(5, nas), {Packet::kDeparture, {5, 0x4001}, 3, 1, 2}},
      {"the list ends", packet(4, Bytes(16)), {Packet::kEndOfList}},
      {"a socket closed", packet(6, {5, 0, 0, 0, 0x01, 0x40, 0, 0}), {Packet::kSocketGone, {5, 0x4001}}},
      {"a node departs", packet(3, {5, 0, 0, 0}), {Packet::kNodeGone, {5, 0}}},
      {"truncated arrival", packet(4, cut), {}},
      {"truncated close", packet(6, {5, 0, 0, 0, 1, 0x40, 0}), {}},
      {"another command", packet(7, nas), {}},
  };
  for (const auto& each : cases) EXPECT_TRUE(read_qrtr_control(each.bytes) == each.control) << each.what;
}

}  // namespace
}  // namespace pelmar::platform
