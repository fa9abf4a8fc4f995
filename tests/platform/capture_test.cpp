// Captures: what a writer writes is read again, and files of other origin are read as far as they are whole. The trace
// of a process's messages, over a scripted modem.
#include "capture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "client_fixture.h"
#include "message_trace.h"

namespace pelmar::platform {
namespace {

using qmi::CapturedMessage;
using qmi::CaptureReader;
using qmi::CaptureWriter;
using qmi::Direction;
using Sharing = CaptureWriter::Sharing;
using Status = CaptureReader::Status;
using testing::ElementsAre;

Bytes u32(uint32_t value) {
  return join({u16(value & 0xFFFF), u16(value >> 16)});
}
Bytes block(uint32_t type, const Bytes& content) {
  const auto length = static_cast<uint32_t>(12 + content.size());
  return join({u32(type), u32(length), content, u32(length)});
}
Bytes link_block(uint16_t type, const Bytes& options) {
  return block(1, join({u16(type), u16(0), u32(0), options}));
}
// A packet of link 0 at the given time: a frame of NAS to the modem, or the bytes given.
Bytes packet(uint32_t time, const Bytes& bytes = {1, 6, 0, 0, 3, 1, 0xAA}, size_t original = 0, uint32_t link = 0) {
  const auto captured = static_cast<uint32_t>(bytes.size());
  const auto length = original == 0 ? captured : static_cast<uint32_t>(original);
  return block(
      6, join({u32(link), u32(0), u32(time), u32(captured), u32(length), bytes, Bytes((4 - bytes.size() % 4) % 4)}));
}

const Bytes kHeader = block(0x0A0D0D0A, join({u32(0x1A2B3C4D), u16(1), u16(0), u32(UINT32_MAX), u32(UINT32_MAX)}));
const Bytes kLink = link_block(147, {});

UniqueFd file_of(const Bytes& bytes) {
  UniqueFd file(::memfd_create("capture", MFD_CLOEXEC));
  EXPECT_EQ(::write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  ::lseek(file.get(), 0, SEEK_SET);
  return file;
}

// The end of the file, and what stands before it: "time:link:service:bytes", with "..." for a cut message.
std::pair<Status, Events> read(const UniqueFd& file) {
  CaptureReader reader(file.get());
  CapturedMessage message;
  Events events;
  Status status;
  while ((status = reader.next(message)) == Status::kMessage) {
    const auto& [service, client, bytes] = message.frame;
    events.push_back(std::to_string(message.time_ns) + ":" + std::to_string(message.link) + ":" +
                     std::to_string(service) + ":" + std::to_string(bytes.size()) + (message.is_cut ? "..." : ""));
  }
  if (reader.skipped() > 0) events.push_back(std::to_string(reader.skipped()) + " skipped");
  return {status, events};
}

// All 32-bit and 16-bit numbers of the header, a link without options and a packet, in the other byte order.
Bytes swapped(Bytes bytes) {
  const auto swap = [&](size_t at, size_t width) { std::reverse(&bytes[at], &bytes[at] + width); };
  for (const size_t at : {4, 8, 16, 20, 24, 32, 40, 44, 48, 52, 56, 60, 64, 68, 72, 84}) swap(at, 4);
  for (const size_t at : {12, 14, 36, 38}) swap(at, 2);
  swap(28, 4);
  return bytes;
}

TEST(CaptureReaderTest, ReadsWhatIsWholeOfAnyFile) {
  const Bytes whole = join({kHeader, kLink, packet(5)});
  const std::string five = "5000:0:3:1";  // a link without a resolution counts microseconds
  const Bytes tail = packet(7);
  const auto with_resolution = [](uint8_t value) { return link_block(147, join({u16(9), u16(1), {value, 0, 0, 0}})); };
  const auto with = [](Bytes bytes, size_t at, uint8_t value) {
    bytes[at] = value;
    return bytes;
  };
  const struct {
    const char* what;
    Bytes bytes;
    Status status;
    Events events;
  } cases[] = {
      {"whole", whole, Status::kEnd, {five}},
      {"no links", kHeader, Status::kEnd, {}},
      {"unknown block", join({kHeader, block(0xBAD, u32(1)), kLink, packet(5)}), Status::kEnd, {five}},
      {"long unknown block", join({kHeader, kLink, block(0xBAD, Bytes(600'000)), tail}), Status::kEnd, {"7000:0:3:1"}},
      {"long packet",
       join({kHeader, kLink, block(6, Bytes(600'000)), tail}),
       Status::kEnd,
       {"7000:0:3:1", "1 skipped"}},
      {"second section", join({whole, whole}), Status::kEnd, {five, "5000:1:3:1"}},
      {"other byte order", swapped(whole), Status::kEnd, {five}},
      {"nanoseconds", join({kHeader, with_resolution(9), packet(5)}), Status::kEnd, {"5:0:3:1"}},
      {"halves of a second", join({kHeader, with_resolution(0x81), packet(5)}), Status::kEnd, {"2500000000:0:3:1"}},
      {"no such resolution", join({kHeader, with_resolution(20), packet(5)}), Status::kEnd, {"1 skipped"}},
      {"offset of a second",
       join({kHeader, link_block(147, join({u16(14), u16(8), u32(1), u32(0)})), packet(5)}),
       Status::kEnd,
       {"1000005000:0:3:1"}},
      {"option beyond the block",
       join({kHeader, link_block(147, join({u16(2), u16(9), u32(0)})), packet(5)}),
       Status::kEnd,
       {five}},
      {"other link type", join({kHeader, link_block(1, {}), packet(5)}), Status::kEnd, {"1 skipped"}},
      {"no such link", join({kHeader, kLink, packet(5, {1, 5, 0, 0, 3, 1}, 0, 1)}), Status::kEnd, {"1 skipped"}},
      {"no frame", join({kHeader, kLink, packet(5, Bytes(8)), packet(5, {1})}), Status::kEnd, {"2 skipped"}},
      {"frame shorter than the packet",
       join({kHeader, kLink, packet(5, {1, 5, 0, 0, 3, 1, 9})}),
       Status::kEnd,
       {"1 skipped"}},
      {"cut packet", join({kHeader, kLink, packet(5, {1, 9, 0, 0, 3, 1, 9}, 10)}), Status::kEnd, {five + "..."}},
      {"packet beyond the block", join({kHeader, kLink, with(packet(5), 20, 9)}), Status::kEnd, {"1 skipped"}},
      {"length of no block", join({whole, u32(6), u32(8), tail}), Status::kBroken, {five}},
      {"odd length", join({whole, u32(6), u32(41), tail}), Status::kBroken, {five}},
      {"lengths differ", join({whole, with(tail, tail.size() - 4, 8), tail}), Status::kBroken, {five}},
      {"endless block", join({whole, u32(6), u32(0xFFFFFFFC), tail}), Status::kCut, {five, "1 skipped"}},
      {"no byte order", join({whole, with(kHeader, 8, 0)}), Status::kBroken, {five}},
      {"other version", with(kHeader, 12, 2), Status::kBroken, {}},
      {"older form", u32(0xA1B2C3D4), Status::kNoCapture, {}},
      {"text", Bytes(100, 'x'), Status::kNoCapture, {}},
      {"empty", {}, Status::kNoCapture, {}},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(read(file_of(each.bytes)), std::pair(each.status, each.events)) << each.what;
  }
  for (size_t length = kHeader.size() + kLink.size() + 1; length < whole.size(); ++length) {
    const Bytes part(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
    EXPECT_EQ(read(file_of(part)), std::pair(Status::kCut, Events())) << length;
  }
}

class CaptureFileTest : public testing::Test {
 protected:
  ~CaptureFileTest() override { std::filesystem::remove_all(directory_); }

  // "" or the problem.
  std::string open(const std::string& name, UniqueFd* file = nullptr) const {
    std::string problem;
    const UniqueFd opened(qmi::open_capture(name, problem));
    EXPECT_EQ(static_cast<bool>(opened), problem.empty());
    if (file != nullptr) *file = UniqueFd(::fcntl(opened.get(), F_DUPFD_CLOEXEC, 0));
    return problem;
  }

  const std::string directory_ = testing::TempDir() + "capture." + std::to_string(::getpid());
  const bool is_made_ = std::filesystem::create_directory(directory_);
  const std::string path_ = directory_ + "/file";
  std::vector<int> errors_;
  const std::function<void(int)> on_end_ = [this](int error) { errors_.push_back(error); };
};

TEST_F(CaptureFileTest, AFileThatIsNoCaptureOrHasAWriterStays) {
  std::ofstream(path_) << "notes";
  EXPECT_THAT(open(path_), testing::HasSubstr("no capture"));
  EXPECT_EQ(std::filesystem::file_size(path_), 5);
  EXPECT_EQ(open(directory_), "Is a directory");
  EXPECT_EQ(open("/dev/fd/1000"), "Bad file descriptor");
  UniqueFd own;
  EXPECT_EQ(open(directory_ + "/%p%%", &own), "");
  const std::string named = directory_ + "/" + std::to_string(::getpid()) + "%";
  CaptureWriter(own.get(), "program 1", on_end_).add_link({"@modem", "a[1]"}, Sharing::kShared);
  const auto length = std::filesystem::file_size(named);
  EXPECT_EQ(open(named), "another process writes it");
  EXPECT_EQ(std::filesystem::file_size(named), length);
  own.reset();
  EXPECT_EQ(open(named), "");
  EXPECT_EQ(std::filesystem::file_size(named), 0) << "an earlier capture is replaced";
}

TEST_F(CaptureFileTest, ThreadsWriteWholeMessagesInTheirOrder) {
  constexpr uint8_t kThreads = 4;
  constexpr size_t kMessages = 2000;
  UniqueFd file;
  ASSERT_EQ(open(path_, &file), "");
  CaptureWriter writer(file.get(), "program 1", on_end_);
  const auto write_all = [&](uint8_t client) {
    const uint32_t link = writer.add_link({"@modem", "a[1]"}, client == 0 ? Sharing::kOwn : Sharing::kShared);
    for (size_t i = 0; i < kMessages; ++i) writer.write(link, Direction::kFromModem, 3, client, Bytes(i % 99, client));
  };
  std::vector<std::thread> threads;
  for (uint8_t client = 0; client < kThreads; ++client) threads.emplace_back(write_all, client);
  for (auto& thread : threads) thread.join();
  writer.write(0, Direction::kToModem, 3, 1, Bytes(70'000));

  const UniqueFd opened(::open(path_.c_str(), O_RDONLY));
  CaptureReader reader(opened.get());
  CapturedMessage message;
  size_t counts[kThreads] = {};
  for (size_t i = 0; i < kThreads * kMessages; ++i) {
    ASSERT_EQ(reader.next(message), Status::kMessage);
    const auto& [service, client, bytes] = message.frame;
    ASSERT_EQ(Bytes(bytes.begin(), bytes.end()), Bytes(counts[client]++ % 99, client));
    ASSERT_EQ(message.direction, Direction::kFromModem);
    ASSERT_EQ(reader.link(message.link), (qmi::CaptureLink{"@modem", "a[1]"}));
    ASSERT_LT(message.link, 2U);
  }
  EXPECT_EQ(reader.next(message), Status::kMessage);
  EXPECT_TRUE(message.is_cut && message.direction == Direction::kToModem);
  EXPECT_NEAR(static_cast<double>(message.time_ns) / 1e9, static_cast<double>(::time(nullptr)), 60);
  EXPECT_EQ(reader.next(message), Status::kEnd);
  EXPECT_EQ(reader.skipped(), 0U);
}

TEST_F(CaptureFileTest, AWriteErrorEndsTheCapture) {
  UniqueFd file;
  ASSERT_EQ(open(path_, &file), "");
  CaptureWriter writer(file.get(), "program 1", on_end_);
  const uint32_t link = writer.add_link({"@modem", "a[1]"}, Sharing::kShared);
  writer.write(link, Direction::kToModem, 3, 1, Bytes(8));
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit = {std::filesystem::file_size(path_) + 20, RLIM_INFINITY};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  for (int i = 0; i < 3; ++i) writer.write(link, Direction::kToModem, 3, 1, Bytes(8));
  const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
  writer.write(link, Direction::kToModem, 3, 1, Bytes(8));
  EXPECT_THAT(errors_, ElementsAre(ENOSPC));
  const auto [status, events] = read(UniqueFd(::open(path_.c_str(), O_RDONLY)));
  EXPECT_EQ(status, Status::kCut);
  EXPECT_EQ(events.size(), 1U);

  int ends[2];  // a pipe that loses its reader raises no signal
  ASSERT_EQ(::pipe(ends), 0);
  const UniqueFd output(ends[1]);
  UniqueFd input(ends[0]);
  CaptureWriter to_pipe(output.get(), "program 1", on_end_);
  input.reset();
  to_pipe.add_link({"@modem", "a[1]"}, Sharing::kShared);
  to_pipe.write(0, Direction::kToModem, 3, 1, Bytes(8));
  EXPECT_THAT(errors_, ElementsAre(ENOSPC, EPIPE));
}

class TraceTest : public ClientTest {
 protected:
  TraceTest() { ::setenv("PELMAR_TRACE", path_.c_str(), 1); }
  ~TraceTest() override { ::unlink(path_.c_str()); }

  const std::string path_ = testing::TempDir() + "trace." + std::to_string(::getpid());
};

TEST_F(TraceTest, EveryMessageOnceAndRequestsFirst) {
  const qmi_client_type handle = connect();
  for (uint8_t i = 0; i < 3; ++i) {
    Exchange exchange = begin(handle);
    EXPECT_EQ(finish(exchange, i), Outcome(QMI_NO_ERR, i));
  }
  modem_.indicate(0, kNasId, qmi::kAllClients, 0x24);
  EXPECT_THAT(events(1), ElementsAre("indication 36 (0)"));
  const pid_t child = ::fork();
  if (child == 0) ::_exit(*pelmar_platform_trace_problem() == '\0');
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "a child of fork() does not write to its parent's file";

  const UniqueFd file(::open(path_.c_str(), O_RDONLY));
  CaptureReader reader(file.get());
  CapturedMessage captured;
  Events found;
  while (reader.next(captured) == Status::kMessage) {
    const auto message = qmi::read_message(captured.frame);
    found.push_back((captured.direction == Direction::kToModem ? "> " : "< ") + std::to_string(message->id));
    EXPECT_THAT(reader.link(captured.link).transport, ::getenv("PELMAR_MODEM"));
    EXPECT_THAT(reader.link(captured.link).process, testing::HasSubstr("[" + std::to_string(::getpid()) + "]"));
  }
  const Events expected = {"> 65280", "< 65280", "> 33",  "< 33",  "> 34",  "< 34", "> 137",
                           "< 137",   "> 137",   "< 137", "> 137", "< 137", "< 36"};
  EXPECT_EQ(found, expected);
}

}  // namespace
}  // namespace pelmar::platform
