// Captures: what a writer writes is read again, and files of other origin are read as far as they are whole. The trace
// of a process's messages, over a scripted modem.
#include "capture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <sstream>
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
// A packet of link 0: a frame of NAS to the modem, or the bytes given.
Bytes packet(uint32_t time, const Bytes& bytes = {1, 6, 0, 0, 3, 1, 0xAA}) {
  const Bytes length = u32(static_cast<uint32_t>(bytes.size()));
  return block(6, join({u32(0), u32(0), u32(time), length, length, bytes, Bytes((4 - bytes.size() % 4) % 4)}));
}

const Bytes kHeader = block(0x0A0D0D0A, join({u32(0x1A2B3C4D), u16(1), u16(0), u32(UINT32_MAX), u32(UINT32_MAX)}));
const Bytes kLink = link_block(147, {});

UniqueFd file_of(const Bytes& bytes) {
  UniqueFd file(::memfd_create("capture", MFD_CLOEXEC));
  EXPECT_EQ(::write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  ::lseek(file.get(), 0, SEEK_SET);
  return file;
}

// What the file has: "TIME:LINK:SERVICE:BYTES" of each message, with "..." if it is cut, then the reader's last status.
std::string read(const UniqueFd& file) {
  static const char* const kEnds[] = {"", "end", "cut", "broken", "no capture"};
  CaptureReader reader(file.get());
  CapturedMessage message;
  std::ostringstream text;
  Status status;
  while ((status = reader.next(message)) == Status::kMessage) {
    const auto& [service, client, bytes] = message.frame;
    text << message.time_ns << ':' << message.link << ':' << +service << ':' << bytes.size()
         << (message.is_cut ? "... " : " ");
  }
  if (reader.skipped() > 0) text << reader.skipped() << " skipped, ";
  return text.str() + kEnds[static_cast<int>(status)];
}

// All numbers of the header, a link without options and a packet, in the other byte order.
Bytes swapped(Bytes bytes) {
  const auto swap = [&](size_t at, size_t width) { std::reverse(&bytes[at], &bytes[at] + width); };
  for (const size_t at : {4, 8, 16, 20, 24, 28, 32, 40, 44, 48, 52, 56, 60, 64, 68, 72, 84}) swap(at, 4);
  for (const size_t at : {12, 14, 36, 38}) swap(at, 2);
  return bytes;
}

TEST(CaptureReaderTest, ReadsTheCompleteBlocksOfAnyFile) {
  const Bytes five = packet(5), whole = join({kHeader, kLink, five});
  const auto option = [](uint8_t code, const Bytes& value, const Bytes& before = {}) {
    return link_block(147, join({before, u16(code), u16(value.size()), value, Bytes((4 - value.size() % 4) % 4)}));
  };
  const auto with = [](Bytes bytes, size_t at, uint8_t value) {
    bytes[at] = value;
    return bytes;
  };
  // The link's speed, a comment, and a name of one letter.
  const Bytes others = {8, 0, 8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 4, 0, 0, 0, 0, 0, 2, 0, 1, 0, 'a', 0, 0, 0};
  const Bytes other = swapped(whole), other_header(other.begin(), other.begin() + 28);
  const Bytes other_five(other.begin() + 48, other.end());
  // An offset of a second, and option 0x800E.
  const Bytes other_link = {0, 0, 0, 1, 0, 0, 0,   44, 0, 147, 0, 0, 0, 0, 0, 0, 0, 14, 0, 8, 0, 0,
                            0, 0, 0, 0, 0, 1, 128, 14, 0, 8,   0, 0, 0, 0, 0, 0, 0, 0,  0, 0, 0, 44};
  const std::tuple<const char*, std::vector<Bytes>, const char*> cases[] = {
      {"a link without a resolution counts microseconds", {whole}, "5000:0:3:1 end"},
      {"unknown blocks", {kHeader, block(0xBAD, {}), block(0xBAD, u32(1)), kLink, five}, "5000:0:3:1 end"},
      {"long unknown block", {kHeader, block(0xBAD, Bytes(600'000)), kLink, five}, "5000:0:3:1 end"},
      {"long packet", {kHeader, kLink, block(6, Bytes(600'000)), five}, "5000:0:3:1 1 skipped, end"},
      {"second section", {whole, whole}, "5000:0:3:1 5000:1:3:1 end"},
      {"other byte order", {other_header, other_link, other_five}, "1000005000:0:3:1 end"},
      {"nanoseconds", {kHeader, option(9, {9}, others), five}, "5:0:3:1 end"},
      {"halves of a second", {kHeader, option(9, {0x81}), five}, "2500000000:0:3:1 end"},
      {"finest resolution", {kHeader, option(9, {19}), five}, "0:0:3:1 end"},
      {"no such resolutions", {kHeader, option(9, {20}), five, option(9, {0xC0}), with(five, 8, 1)}, "2 skipped, end"},
      {"offset of 2^32 + 1 s", {kHeader, option(14, {1, 0, 0, 0, 1, 0, 0, 0}), five}, "4294967297000005000:0:3:1 end"},
      {"offset before 1970", {kHeader, option(14, Bytes(8, 0xFF)), five}, "9223372035000005000:0:3:1 end"},
      {"offset beyond the block", {kHeader, with(option(14, {1, 0, 0, 0}), 18, 8), five}, "5000:0:3:1 end"},
      {"other link type", {kHeader, link_block(1, {}), five}, "1 skipped, end"},
      {"no such link", {kHeader, kLink, with(five, 8, 1)}, "1 skipped, end"},
      {"no frame", {kHeader, kLink, packet(5, Bytes(8)), packet(5, {1}), block(6, u32(0))}, "3 skipped, end"},
      {"frame without message", {kHeader, kLink, packet(5, {1, 5, 0, 0, 3, 1})}, "5000:0:3:0 end"},
      {"frame shorter than the packet", {kHeader, kLink, packet(5, {1, 5, 0, 0, 3, 1, 9})}, "1 skipped, end"},
      {"cut packet", {kHeader, kLink, with(packet(5, {1, 9, 0, 0, 3, 1, 9}), 24, 10)}, "5000:0:3:1... end"},
      {"packet beyond the block", {kHeader, kLink, with(five, 20, 32)}, "1 skipped, end"},
      {"length of no block", {whole, u32(6), u32(8), five}, "5000:0:3:1 broken"},
      {"odd length", {whole, u32(6), u32(41), five}, "5000:0:3:1 broken"},
      {"lengths differ", {whole, with(five, five.size() - 4, 8), five}, "5000:0:3:1 broken"},
      {"endless block", {whole, u32(6), u32(0xFFFFFFFC), five}, "5000:0:3:1 1 skipped, cut"},
      {"no byte order", {whole, with(kHeader, 8, 0)}, "5000:0:3:1 broken"},
      {"other version", {with(kHeader, 12, 2)}, "broken"},
      {"older form", {u32(0xA1B2C3D4), kHeader}, "no capture"},
      {"empty", {}, "no capture"},
  };
  for (const auto& [what, parts, found] : cases) {
    Bytes bytes;
    for (const Bytes& part : parts) bytes.insert(bytes.end(), part.begin(), part.end());
    EXPECT_EQ(read(file_of(bytes)), found) << what;
  }
  for (size_t length = whole.size() - five.size() + 1; length < whole.size(); ++length) {
    EXPECT_EQ(read(file_of({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)})), "cut") << length;
  }

  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
  std::thread writer([&, output = UniqueFd(ends[1])] {
    const Bytes all = join({whole, block(0xBAD, Bytes(600'000))});
    for (const auto& part : {std::span(all).first(all.size() - 1), std::span(all).last(1)}) {
      ::usleep(50'000);  // the reader finds the pipe empty
      EXPECT_EQ(::write(output.get(), part.data(), part.size()), static_cast<ssize_t>(part.size()));
    }
  });
  EXPECT_EQ(read(UniqueFd(ends[0])), "5000:0:3:1 end") << "from a descriptor that does not wait";
  writer.join();
  EXPECT_EQ(read(UniqueFd(::open("/dev/null", O_WRONLY))), "no capture");
}

class CaptureFileTest : public testing::Test {
 protected:
  ~CaptureFileTest() override { std::filesystem::remove_all(directory_); }

  std::string problem_of(const std::string& name) {
    std::string problem;
    file_.reset();
    file_.reset(qmi::open_capture(name, problem));
    EXPECT_EQ(static_cast<bool>(file_), problem.empty());
    return problem;
  }

  const std::string directory_ = testing::TempDir() + "capture." + std::to_string(::getpid());
  const bool is_made_ = std::filesystem::create_directory(directory_);
  const std::string path_ = directory_ + "/file";
  const qmi::CaptureLink link_ = {"@modem", "a[1]"};
  UniqueFd file_;
  std::vector<int> errors_;
  const std::function<void(int)> on_end_ = [this](int error) { errors_.push_back(error); };
};

TEST_F(CaptureFileTest, DoesNotReplaceAFileThatIsNoCaptureOrHasAWriter) {
  const int next = UniqueFd(::dup(STDOUT_FILENO)).get();
  ::close(STDIN_FILENO);  // files are opened as descriptor 0
  for (const std::string& foreign : {std::string("n"), std::string(kHeader.begin(), kHeader.end())}) {
    std::ofstream(path_) << foreign;
    EXPECT_THAT(problem_of(path_), testing::HasSubstr("no capture"));
    EXPECT_EQ(std::filesystem::file_size(path_), foreign.size());
  }
  EXPECT_EQ(::fcntl(next, F_GETFD), -1) << "a refused file is closed";
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit one = {1, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &one), 0);
  EXPECT_THAT(problem_of(path_), testing::HasSubstr("no capture")) << "a file that cannot be read";
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(problem_of(directory_), "Is a directory");
  EXPECT_EQ(problem_of("/dev/fd/1000"), "Bad file descriptor");
  const std::string fifo = directory_ + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(problem_of(fifo), "no process reads the pipe yet");
  const UniqueFd reader(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK));
  EXPECT_EQ(problem_of(fifo), "");
  const UniqueFd writer = std::move(file_);
  EXPECT_EQ(problem_of(fifo), "another process writes it");
  EXPECT_EQ(problem_of(directory_ + "/%p%%"), "");
  const std::string named = directory_ + "/" + std::to_string(::getpid()) + "%";
  const UniqueFd own = std::move(file_);
  CaptureWriter(own.get(), "program 1", on_end_).add_link(link_, Sharing::kShared);
  const auto length = std::filesystem::file_size(named);
  EXPECT_EQ(std::filesystem::status(named).permissions(), std::filesystem::perms(0600));
  EXPECT_EQ(problem_of(named), "another process writes it");
  EXPECT_EQ(std::filesystem::file_size(named), length);
}

TEST_F(CaptureFileTest, HasBlocksThatOtherProgramsRead) {
  const auto option = [](uint16_t code, std::string_view text) {
    return join({u16(code), u16(text.size()), {text.begin(), text.end()}, Bytes((4 - text.size() % 4) % 4)});
  };
  const auto packet_of = [](uint8_t direction, uint32_t flags) {
    const Bytes frame = {1, 6, 0, direction, 3, 1, 0xAA, 0};
    return block(6, join({u32(0), Bytes(8), u32(7), u32(7), frame, u16(2), u16(4), u32(flags), u32(0)}));
  };
  ASSERT_EQ(problem_of(path_), "");
  CaptureWriter writer(file_.get(), "program 1", on_end_);
  writer.add_link({"@modem", std::string(256, 'a')}, Sharing::kOwn);
  for (const Direction each : {Direction::kToModem, Direction::kFromModem}) writer.write(0, each, 3, 1, Bytes{0xAA});
  const Bytes fixed(kHeader.begin() + 8, kHeader.end() - 4), end = u32(0), sent = packet_of(0, 2);
  const Bytes header = join({fixed, option(1, "QMI messages in QMUX frames"), option(4, "program 1"), end});
  const Bytes link = join({option(2, "@modem"), option(3, std::string(255, 'a')), option(9, "\x09"), end});
  const Bytes expected = join({block(0x0A0D0D0A, header), link_block(147, link), sent, packet_of(0x80, 1)});
  std::ifstream file(path_);
  Bytes found(std::istreambuf_iterator<char>(file), {});
  ASSERT_EQ(found.size(), expected.size());
  for (const size_t packets : {1, 2}) std::fill_n(found.end() - packets * sent.size() + 12, 8, 0);  // the times
  EXPECT_EQ(found, expected);
}

TEST_F(CaptureFileTest, ThreadsWriteWholeMessagesInTheirOrder) {
  constexpr size_t kThreads = 4, kMessages = 2000;
  for (const bool is_replaced : {false, true}) {
    ASSERT_EQ(problem_of(path_), "") << is_replaced;
    CaptureWriter writer(file_.get(), "program 1", on_end_);
    const auto write_all = [&](uint8_t client) {
      const uint32_t number = writer.add_link(link_, client == 0 ? Sharing::kOwn : Sharing::kShared);
      for (size_t i = 0; i < kMessages; ++i) {
        writer.write(number, Direction::kFromModem, 3, client, Bytes(i % 1999, client));
      }
    };
    std::vector<std::thread> threads;
    for (uint8_t client = 0; client < kThreads; ++client) threads.emplace_back(write_all, client);
    for (auto& thread : threads) thread.join();
    writer.write(0, Direction::kToModem, 3, 1, Bytes(70'000));
  }
  const UniqueFd opened(::open(path_.c_str(), O_RDONLY));
  CaptureReader reader(opened.get());
  CapturedMessage message;
  size_t counts[kThreads] = {};
  int64_t times[kThreads] = {};
  for (size_t i = 0; i < kThreads * kMessages; ++i) {
    ASSERT_EQ(reader.next(message), Status::kMessage);
    const auto& [service, client, bytes] = message.frame;
    ASSERT_EQ(Bytes(bytes.begin(), bytes.end()), Bytes(counts[client]++ % 1999, client));
    ASSERT_TRUE(message.direction == Direction::kFromModem && message.link < 2 && reader.link(message.link) == link_);
    ASSERT_LE(std::exchange(times[client], message.time_ns), message.time_ns);
  }
  EXPECT_EQ(reader.next(message), Status::kMessage);
  EXPECT_TRUE(message.is_cut && message.direction == Direction::kToModem);
  EXPECT_NEAR(static_cast<double>(message.time_ns) / 1e9, static_cast<double>(::time(nullptr)), 60);
  EXPECT_EQ(reader.next(message), Status::kEnd);
}

TEST_F(CaptureFileTest, LinksBeyondTheLimitShareOneNumber) {
  ::close(STDIN_FILENO);  // the file is opened as descriptor 0
  ASSERT_EQ(problem_of(path_), "");
  CaptureWriter writer(file_.get(), "program 1", on_end_);
  for (uint32_t i = 0; i < 16'385; ++i) ASSERT_EQ(writer.add_link(link_, Sharing::kOwn), std::min(i, 16'383u));
  for (const uint32_t link : {16'382u, 16'383u}) writer.write(link, Direction::kToModem, 3, 1, Bytes(8));
  const UniqueFd opened(::open(path_.c_str(), O_RDONLY));
  CaptureReader reader(opened.get());
  CapturedMessage message;
  for (const char* const transport : {"@modem", "others"}) {
    ASSERT_EQ(reader.next(message), Status::kMessage);
    EXPECT_EQ(reader.link(message.link).transport, transport);
  }
}

TEST_F(CaptureFileTest, AWriteErrorEndsTheCapture) {
  const auto set_limit = [](rlim_t limit) {
    const rlimit limits = {limit, RLIM_INFINITY};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limits), 0);
  };
  const auto write_to_limit = [&](CaptureWriter& writer) {  // SIGXFSZ would end this process
    for (int i = 0; i < 3; ++i) writer.write(0, Direction::kToModem, 3, 1, Bytes(8));
    return read(UniqueFd(::open(path_.c_str(), O_RDONLY)));
  };
  ASSERT_EQ(problem_of(path_), "");
  CaptureWriter unlimited(file_.get(), "program 1", on_end_);
  unlimited.add_link(link_, Sharing::kShared);
  const rlim_t length = std::filesystem::file_size(path_);
  set_limit(length + 80);  // a block has 60 bytes
  EXPECT_THAT(write_to_limit(unlimited), testing::EndsWith(":0:3:8 cut"));
  const Bytes before = join({kHeader, block(0xBAD, Bytes(60))});  // 100 bytes
  set_limit(length + 220);
  ASSERT_EQ(problem_of(path_), "");
  std::ofstream(path_, std::ios::app) << std::string(before.begin(), before.end());
  CaptureWriter limited(file_.get(), "program 1", on_end_);
  limited.add_link(link_, Sharing::kShared);
  EXPECT_THAT(write_to_limit(limited), testing::EndsWith(":0:3:8 end"));
  EXPECT_EQ(std::filesystem::file_size(path_), length + 220);
  set_limit(RLIM_INFINITY);
  const UniqueFd readable(::open(path_.c_str(), O_RDONLY));
  const CaptureWriter unwritable(readable.get(), "program 1", on_end_);

  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const UniqueFd output(ends[1]);
  ::close(ends[0]);
  CaptureWriter to_pipe(output.get(), "program 1", on_end_);  // SIGPIPE would end this process
  to_pipe.write(0, Direction::kToModem, 3, 1, Bytes(8));
  sigset_t blocked;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
  EXPECT_THAT(errors_, ElementsAre(ENOSPC, EFBIG, EBADF, EPIPE));
}

TEST_F(ClientTest, TheTraceHasEveryMessageOnceAndRequestsFirst) {
  const std::string path = testing::TempDir() + "trace." + std::to_string(::getpid());
  ::setenv("PELMAR_TRACE", path.c_str(), 1);
  const qmi_client_type handle = connect();
  Exchange exchange = begin(handle);
  EXPECT_EQ(finish(exchange, 5), Outcome(QMI_NO_ERR, 5));
  modem_.indicate(0, kNasId, qmi::kAllClients, 0x24);
  EXPECT_THAT(events(1), ElementsAre("indication 36 (0)"));
  const pid_t child = ::fork();
  if (child == 0) ::_exit(*pelmar_platform_trace_problem() == '\0');
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "a child of fork() does not write to its parent's file";

  const UniqueFd file(::open(path.c_str(), O_RDONLY));
  CaptureReader reader(file.get());
  CapturedMessage captured;
  Events found;
  while (reader.next(captured) == Status::kMessage) {
    const std::string mark = captured.direction == Direction::kToModem ? "> " : "< ";
    found.push_back(mark + std::to_string(qmi::read_message(captured.frame)->id));
    EXPECT_EQ(reader.link(captured.link).transport, ::getenv("PELMAR_MODEM"));
    EXPECT_THAT(reader.link(captured.link).process, testing::EndsWith("[" + std::to_string(::getpid()) + "]"));
  }
  const Events expected = {"> 65280", "< 65280", "> 33", "< 33", "> 34", "< 34", "> 137", "< 137", "< 36"};
  EXPECT_EQ(found, expected);
  ::unlink(path.c_str());
}

}  // namespace
}  // namespace pelmar::platform
