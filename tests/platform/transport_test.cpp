// The parts of the transports that need no peer: the forms of a modem's address, devices that cannot be opened, the
// record of client ids, and the control packets of QRTR.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "client_id_record.h"
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

// The connections of one process have entries of their own, as those of several processes do.
TEST(ClientIdRecord, HasTheIdsThatNobodyElseMayHaveByNow) {
  namespace fs = std::filesystem;
  const fs::path home = testing::TempDir() + "record." + std::to_string(::getpid()), socket = home / "a b%,";
  const fs::path place = home / "pelmar/client-ids", file = place / "record";
  fs::create_directories(place);
  fs::permissions(place, fs::perms::all);
  for (const fs::path& path : {socket, home / "new"}) std::ofstream made(path);
  ::setenv("XDG_STATE_HOME", home.c_str(), 1);
  const Deadline none = Deadline::none();
  ClientIdRecord a(socket, "/c"), b(socket, "/c"), c(socket, "/c"), other("/x", "/c");
  const auto held = [&] {
    std::string ids;
    for (const HeldClientId& id : a.held(none)) ids += std::to_string(id.client) + (id.process == 0 ? "! " : " ");
    return ids;
  };
  b.add({3, 2}, none);
  other.add({3, 1}, none);
  a.add({3, 1}, none);
  EXPECT_EQ(held(), "2 1 ");
  c.add({3, 1}, none);  // allocated again, so that a's id and the older ones are void
  a.restore({{3, 9}, {3, 9}}, none);
  EXPECT_EQ(held(), "9! 1 ");
  EXPECT_FALSE(a.remove(none) || b.remove(none));
  EXPECT_TRUE(other.remove(none)) << "another modem's id";
  EXPECT_EQ(c.take_abandoned(none).size() + c.take_abandoned(none).size(), 1u) << "the first call takes it";
  b.add({3, 2}, none);
  b.void_own(none);
  EXPECT_EQ(held(), "");
  EXPECT_FALSE(c.remove(none));

  a.add({3, 1}, none);
  std::string line, lines;
  std::getline(std::ifstream(file), line);
  for (int count = 0; count < 256; ++count) lines += "of-another-boot" + line.substr(line.find(' ')) + '\n';
  line.replace(line.find(" 3 1 "), 2, " 259");  // no service has this number
  std::ofstream(file) << line << '\n' << lines;
  EXPECT_TRUE(b.add({3, 4}, none).empty()) << "ids of another boot are not abandoned";
  EXPECT_EQ(held(), "4 ") << "in place of the oldest";

  fs::rename(home / "new", socket);
  EXPECT_TRUE(ClientIdRecord(socket, "/c").held(none).empty()) << "the modem behind another socket of this name";
  EXPECT_TRUE(b.remove(none));
  EXPECT_EQ(held(), "");
  EXPECT_EQ(fs::status(place).permissions(), fs::perms::owner_all);
  fs::remove_all(home);
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
