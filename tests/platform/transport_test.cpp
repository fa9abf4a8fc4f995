// The parts of the transports below connections: the forms of a modem's address, devices, the record of client ids, and
// the control packets of QRTR.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <span>
#include <thread>
#include <tuple>

#include "client_id_record.h"
#include "modem_address.h"
#include "modem_device.h"
#include "qrtr_transport.h"
#include "scripted_modem.h"

namespace pelmar::platform {
namespace {

using Kind = ModemAddress::Kind;
using Packet = QrtrControl::Kind;
using std::chrono::milliseconds;

TEST(ModemAddress, HasTheseForms) {
  const std::string path = "/" + std::string(106, 'x'), abstract = "@" + std::string(107, 'x');  // the longest names
  const std::pair<std::string, std::optional<ModemAddress>> cases[] = {
      {"/dev/null", ModemAddress{Kind::kDevice, "/dev/null"}},
      {"@qmi-proxy", ModemAddress{Kind::kProxy, "/dev/cdc-wdm0"}},
      {"proxy:/dev/cdc-wdm1", ModemAddress{Kind::kProxy, "/dev/cdc-wdm1"}},
      {"qrtr", ModemAddress{Kind::kQrtr, ""}},
      {"qrtr:0", ModemAddress{Kind::kQrtr, "", 0}},
      {"qrtr:4294967295", ModemAddress{Kind::kQrtr, "", 0xFFFFFFFF}},
      {"/dev/cdc-wdm9", ModemAddress{Kind::kDevice, "/dev/cdc-wdm9"}},
      {"", std::nullopt},
      {"modem", std::nullopt},
      {"proxy:", std::nullopt},
      {"proxy:cdc-wdm0", std::nullopt},
      {"qrtr:4294967296", std::nullopt},
      {"@", std::nullopt},
      {path + 'x', std::nullopt},
      {abstract + 'x', std::nullopt},
  };
  for (const auto& [text, address] : cases) EXPECT_EQ(parse_modem_address(text), address) << text;
  for (const std::string& name : {std::string("@m"), abstract, std::string("/"), path}) {
    EXPECT_EQ(parse_modem_address(name), (ModemAddress{Kind::kQmuxSocket, name}));
  }
}

TEST(ModemDevice, OneThatSpeaksMbimOrIsOfAnotherUserOrProcessIsRefusedWithAReason) {
  const UniqueFd zero(::open("/dev/zero", O_RDONLY));  // the other process inherits it
  FILE* const process = ::popen("cat", "w");
  for (const auto& [name, user, problem] :
       {std::tuple("mbim", 0, "it speaks MBIM"), {"modem", 61234, "this user may not open it"}, {"a", 0, "process "}}) {
    const std::string path = testing::TempDir() + name + "." + std::to_string(::getpid());
    if (::mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 5)) != 0) GTEST_SKIP() << "only root can make a device";
    EXPECT_EQ(::seteuid(static_cast<uid_t>(user)), 0);
    const std::string found = connect_device(path).problem.text;
    EXPECT_EQ(::seteuid(0) + ::unlink(path.c_str()), 0);
    EXPECT_EQ(found.substr(0, std::strlen(problem)), problem);
  }
  ::pclose(process);
}

// The connections of one process have entries of their own, as those of several processes do.
TEST(ClientIdRecord, HasOnlyIdsThatNoOtherClientCanHave) {
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
  EXPECT_TRUE(ClientIdRecord(socket, "/c").remove(none)) << "an id that could not be entered";
  {
    const UniqueFd other_process(::open(file.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::flock(other_process.get(), LOCK_EX), 0);
    const auto start = Deadline::Clock::now();
    EXPECT_FALSE(b.remove(none)) << "another process releases it later";
    EXPECT_GE(Deadline::Clock::now() - start, Deadline::Milliseconds(200));
  }
  fs::permissions(file, fs::perms::all);
  EXPECT_EQ(held(), "") << "every user can write the file";
  fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);

  fs::rename(home / "new", socket);
  EXPECT_TRUE(ClientIdRecord(socket, "/c").held(none).empty()) << "the modem behind another socket of this name";
  EXPECT_TRUE(b.remove(none));
  EXPECT_EQ(held(), "");
  EXPECT_EQ(fs::status(place).permissions(), fs::perms::owner_all);
  fs::remove_all(home);
}

// A pseudo-terminal is the device, and the test is the modem at its other end.
class SharedDevice : public testing::Test {
 protected:
  SharedDevice() {
    EXPECT_EQ(::grantpt(modem_.get()) + ::unlockpt(modem_.get()), 0);
    for (DeviceLink& link : links_) link = connect_device(::ptsname(modem_.get()));
  }
  void send(const Bytes& bytes) {
    EXPECT_EQ(::write(modem_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  Bytes receive(size_t length) {
    Bytes bytes(length);
    for (size_t end = 0; end < length;) {
      const ssize_t count = ::read(modem_.get(), &bytes[end], length - end);
      if (count <= 0) throw std::runtime_error("the device was closed");
      end += static_cast<size_t>(count);
    }
    return bytes;
  }
  static Bytes take(const DeviceLink& link, size_t length) {
    Bytes bytes(length);
    for (size_t end = 0, count = 0; end < length; end += count) {
      const std::span<uint8_t> room(&bytes[end], length - end);
      if (receive_from_device(link, link.socket.get(), room, Deadline::none(), count) != ReadStatus::kRead) return {};
    }
    return bytes;
  }
  static void expect(const DeviceLink& link, const Bytes& bytes) { EXPECT_EQ(take(link, bytes.size()), bytes); }
  static void end(DeviceLink& link) {
    link.socket.reset();
    while (flush_device(link, Deadline::now()) != SendStatus::kGone) std::this_thread::sleep_for(milliseconds(1));
  }

  UniqueFd modem_{::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
  DeviceLink links_[3];
};

TEST_F(SharedDevice, SendsABlockedFrameWholeUnlessItsLinkEndsBefore) {
  auto& [a, b, c] = links_;
  // The kernel takes less than one of them; a terminal that is not raw would change the line feeds.
  const Bytes first = frame(1, 0xFF, Bytes(60'000, '\n')), last = frame(1, 0xFF, Bytes(50'000, 'x'));
  EXPECT_EQ(send_to_device(a, first), SendStatus::kBlocked);
  EXPECT_EQ(send_to_device(c, first), SendStatus::kBlocked);
  EXPECT_EQ(send_to_device(b, last), SendStatus::kBlocked);
  EXPECT_EQ(flush_device(a, Deadline::now()), SendStatus::kTimedOut);
  auto flushed = std::async(std::launch::async, [&a = a] { return flush_device(a, Deadline::none()); });
  EXPECT_EQ(flushed.wait_for(milliseconds(50)), std::future_status::timeout);
  end(c);
  const Bytes received = receive(first.size() + 1);
  EXPECT_EQ(flushed.get(), SendStatus::kSent);
  end(b);  // the device has a part of its frame
  EXPECT_EQ(join({received, receive(last.size() - 1)}), join({first, last}));
  SendStatus status = SendStatus::kSent;
  while (status == SendStatus::kSent) status = send_to_device(a, frame(1, 0xFF, {1, 2}));  // the last does not fit
  EXPECT_EQ(status, SendStatus::kBlocked);
}

TEST_F(SharedDevice, PassesEachLinkItsFramesInOrder) {
  const Bytes first = frame(1, 0xFF, Bytes(1000, 1)), next = frame(1, 0xFF, Bytes(1000, 2));
  Bytes all;
  while (all.size() < 300'000) all = join({all, first, next});
  send(all);
  for (const DeviceLink& link : links_) expect(link, all);
  for (int round = 0; round < 9; ++round) {
    send({first[0]});
    std::this_thread::sleep_for(milliseconds(5));
    send({first.begin() + 1, first.end()});
    pollfd arrival = {links_[0].socket.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&arrival, 1, -1), 1) << "while no link reads";
    for (int i = 0; i < round % 3; ++i) send(next);
    expect(links_[0], first);
    for (int i = 0; i < round % 3; ++i) expect(links_[0], next);
  }
  modem_.reset();
  EXPECT_EQ(take(links_[0], 1), Bytes()) << "the device is gone";
}

TEST_F(SharedDevice, DropsWholeFramesOfALinkThatReadsNothingAndLogsTheirNumber) {
  const Bytes each = frame(1, 0xFF, Bytes(60'000, 1)), last = frame(1, 0xFF, {2});
  constexpr size_t kCount = 30;  // a link keeps 1 MiB
  ::openlog("test", LOG_PERROR, LOG_USER);
  testing::internal::CaptureStderr();
  for (size_t i = 0; i <= kCount; ++i) {
    const Bytes& sent = i < kCount ? each : last;
    send(sent);
    expect(links_[2], sent);
  }
  size_t arrived = 0;
  for (; arrived < kCount && take(links_[1], last.size()) != last; ++arrived) {
    take(links_[1], each.size() - last.size());
  }
  flush_device(links_[1], Deadline::now());  // waits for the thread that logs
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "test: A client's callbacks are too slow, " +
                                                        std::to_string(kCount - arrived) +
                                                        " messages of the modem's device were dropped\n");
}

TEST_F(SharedDevice, GivesAClientIdToTheLinkThatRequestedIt) {
  const auto allocation = [](std::initializer_list<uint8_t> head, const Bytes& tlvs) {
    return frame(0, 0, join({head, {0x22, 0}, u16(tlvs.size()), tlvs}));
  };
  const Bytes id = join({kSuccess, {0x01, 2, 0, 1, 7}}), own = frame(1, 7, {4, 0, 0, 1, 0, 0, 0});
  for (uint8_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(send_to_device(links_[i - 1], allocation({0, 9}, {0x01, 1, 0, 1})), SendStatus::kSent);
    EXPECT_EQ(receive(16), allocation({0, i}, {0x01, 1, 0, 1}));
  }
  send(allocation({1, 1}, refusal(5)));
  expect(links_[0], allocation({1, 9}, refusal(5)));
  for (int i = 0; i < 2; ++i) send(allocation({1, 2}, id));  // the modem repeats itself
  send(own);
  expect(links_[1], join({allocation({1, 9}, id), own}));
  end(links_[2]);
  send(allocation({1, 3}, id));
  EXPECT_EQ(receive(17), (Bytes{0x01, 16, 0, 0, 0, 0, 0, 4, 0x23, 0, 5, 0, 0x01, 2, 0, 1, 7})) << "it is released";
}

// The last link to end closes the device, and the next opens it again. The modem's frames go to every link.
TEST_F(SharedDevice, ThreadsOpenAndEndLinks) {
  const std::string path = ::ptsname(modem_.get());
  for (DeviceLink& link : links_) end(link);
  const Bytes request = frame(1, 0xFF, {0, 1, 0, 1, 0, 0, 0});
  std::atomic<int> working{3};
  const auto use = [&] {
    for (int round = 0; round < 50; ++round) {
      const DeviceLink link = connect_device(path);
      EXPECT_EQ(link.problem.text, "");
      if (link.problem) break;
      EXPECT_EQ(send_to_device(link, request), SendStatus::kSent);
      EXPECT_EQ(take(link, request.size()), request);
    }
    --working;
  };
  std::future<void> threads[] = {std::async(std::launch::async, use), std::async(std::launch::async, use),
                                 std::async(std::launch::async, use)};
  while (working > 0) {
    pollfd arrival = {modem_.get(), POLLIN, 0};
    if (::poll(&arrival, 1, 1) <= 0 || (arrival.revents & POLLIN) == 0) continue;  // the device may be closed
    EXPECT_EQ(receive(request.size()), request);
    send(request);
  }
}

TEST(Qrtr, ReadsControlPackets) {
  const Bytes nas = {3, 0, 0, 0, 0x02, 0x01, 0, 0, 5, 0, 0, 0, 0x01, 0x40, 0, 0};  // version 2, instance 1
  const auto packet = [](uint8_t command, Bytes rest) {
    rest.insert(rest.begin(), {command, 0, 0, 0});
    return rest;
  };
  const Bytes cut(nas.begin(), nas.end() - 1);
  const QrtrAddress peers[] = {{5, 0x4001}, {5, 1}, {6, 0x4001}};
  const struct {
    const char* what;
    Bytes bytes;
    QrtrControl control;
    const char* ended = "---";  // of the peers
  } cases[] = {
      {"a service arrives", packet(4, nas), {Packet::kArrival, {5, 0x4001}, 3, 1, 2}},
      {"a service departs", packet(5, nas), {Packet::kDeparture, {5, 0x4001}, 3, 1, 2}, "x--"},
      {"the list ends", packet(4, Bytes(16)), {Packet::kEndOfList}},
      {"a socket closed", packet(6, {5, 0, 0, 0, 0x01, 0x40, 0, 0}), {Packet::kSocketGone, {5, 0x4001}}, "x--"},
      {"a node departs", packet(3, {5, 0, 0, 0}), {Packet::kNodeGone, {5, 0}}, "xx-"},
      {"truncated arrival", packet(4, cut), {}},
      {"truncated close", packet(6, {5, 0, 0, 0, 1, 0x40, 0}), {}},
      {"another command", packet(7, nas), {}},
  };
  for (const auto& each : cases) {
    const QrtrControl control = read_qrtr_control(each.bytes);
    EXPECT_TRUE(control == each.control) << each.what;
    std::string ended;
    for (const QrtrAddress& peer : peers) ended += control.ends(peer) ? 'x' : '-';
    EXPECT_EQ(ended, each.ended) << each.what;
  }
}

TEST(Qrtr, AKernelWithoutItIsReported) {
  if (UniqueFd(::socket(AF_QIPCRTR, SOCK_DGRAM, 0)) || errno != EAFNOSUPPORT) GTEST_SKIP() << "it may have QRTR";
  ::openlog("qrtr", LOG_PERROR, LOG_USER);
  testing::internal::CaptureStderr();
  ModemReport report;
  inspect_qrtr({}, Deadline::none(), report);
  EXPECT_EQ(report.transport + ": " + report.problem + ". " + report.remedy,
            "QRTR: this kernel has no QRTR. 'modprobe qrtr' loads it. ");
  EXPECT_FALSE(report.may_come);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "qrtr: Cannot connect to the modem: this kernel has no QRTR: modprobe qrtr\n");
}

}  // namespace
}  // namespace pelmar::platform
