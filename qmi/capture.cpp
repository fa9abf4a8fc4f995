#include "capture.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <utility>

namespace pelmar::qmi {
namespace {

static_assert(std::endian::native == std::endian::little, "numbers are written as they are in memory");

// Blocks: u32 type, u32 length of the block, content, options, u32 length of the block. Options: u16 code, u16 length,
// value. Values and packets are padded to four bytes.
constexpr uint32_t kSectionHeader = 0x0A0D0D0A;  // the same in both byte orders
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint32_t kByteOrder = 0x1A2B3C4D;
constexpr uint32_t kByteOrderSwapped = 0x4D3C2B1A;
constexpr size_t kLeastBlock = 12;
constexpr size_t kSectionLength = 28;  // without options, as are the next two
constexpr size_t kInterfaceLength = 20;
constexpr size_t kPacketLength = 32;

constexpr uint16_t kLinkType = 147;  // LINKTYPE_USER0
constexpr uint8_t kNanoseconds = 9;  // a tick is 10 to the power of -9 seconds
constexpr uint64_t kSecond = 1'000'000'000;
constexpr std::string_view kMark = "QMI messages in QMUX frames";

enum OptionCode : uint16_t {
  kEndOfOptions = 0,
  kComment = 1,      // of every block
  kApplication = 4,  // of a section
  kName = 2,         // of an interface, as are the next three
  kDescription = 3,
  kTimeResolution = 9,
  kTimeOffset = 14,
  kFlags = 2,  // of a packet
};
constexpr uint32_t kInbound = 1;
constexpr uint32_t kOutbound = 2;

// Of a capture with more links, the writer puts the messages of all further ones on the last link; the reader skips
// those of further links.
constexpr size_t kMostLinks = 16384;
constexpr size_t kLongestText = 255;

constexpr size_t kBufferLength = size_t{256} << 10;  // also the longest block that is not skipped

constexpr int kPipeTimeoutMs = 5000;

constexpr size_t padding_of(size_t length) {
  return (4 - length % 4) % 4;
}

// A block under construction.
class Block {
 public:
  explicit Block(uint32_t type) {
    put(type);
    put(uint32_t{0});
  }

  template <typename Number>
  void put(Number number) {
    bytes_.append(reinterpret_cast<const char*>(&number), sizeof number);
  }

  void put_option(uint16_t code, std::string_view value) {
    value = value.substr(0, kLongestText);
    put(code);
    put(static_cast<uint16_t>(value.size()));
    bytes_ += value;
    bytes_.append(padding_of(value.size()), '\0');
  }

  std::span<const uint8_t> finish() {
    put(uint32_t{kEndOfOptions});
    const auto length = static_cast<uint32_t>(bytes_.size() + sizeof(uint32_t));
    put(length);
    std::memcpy(&bytes_[4], &length, sizeof length);
    return {reinterpret_cast<const uint8_t*>(bytes_.data()), bytes_.size()};
  }

 private:
  std::string bytes_;
};

// The beginning of a section header, up to the mark.
Block begin_section_header() {
  Block block(kSectionHeader);
  block.put(kByteOrder);
  block.put(uint32_t{1});  // version 1.0
  block.put(UINT64_MAX);   // the section's length is unknown
  block.put_option(kComment, kMark);
  return block;
}

bool is_capture(int descriptor) {
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  Block header = begin_section_header();
  const auto expected = header.finish();
  uint8_t found[128];
  const ssize_t count = ::read(file, found, sizeof found);
  ::close(file);
  constexpr size_t kLengthEnd = 8;  // the lengths may differ
  const size_t marked = expected.size() - kLengthEnd;
  return count >= static_cast<ssize_t>(marked) && std::memcmp(found, expected.data(), sizeof(uint32_t)) == 0 &&
         std::memcmp(found + kLengthEnd, &expected[kLengthEnd], marked - kLengthEnd) == 0;
}

std::string expand(std::string_view name) {
  std::string path;
  for (size_t i = 0; i < name.size(); ++i) {
    const std::string_view mark = name.substr(i, 2);
    if (mark == "%p") path += std::to_string(::getpid());
    if (mark == "%%") path += '%';
    if (mark == "%p" || mark == "%%") {
      ++i;
    } else {
      path += name[i];
    }
  }
  return path;
}

// Locks a file or a FIFO, and empties a file. Returns the problem if another process writes it or it is no capture:
// then it stays as it is.
std::string take_over(int file) {
  struct stat status {};
  if (::fstat(file, &status) != 0 || (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode))) return "";
  if (::flock(file, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return "another process writes it";
  if (S_ISFIFO(status.st_mode)) return "";
  if (::fstat(file, &status) == 0 && status.st_size > 0 && !is_capture(file))
    return "the file is there already and is no capture of QMI messages: remove it, or name another";
  return ::ftruncate(file, 0) == 0 ? "" : std::strerror(errno);
}

bool is_regular(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// The bytes that may be written to a file.
int64_t room_of(int descriptor) {
  struct stat status {};
  rlimit limit{};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return INT64_MAX;
  if (::getrlimit(RLIMIT_FSIZE, &limit) != 0) return INT64_MAX;
  const bool appends = (::fcntl(descriptor, F_GETFL) & O_APPEND) != 0;
  const off_t position = appends ? status.st_size : ::lseek(descriptor, 0, SEEK_CUR);
  return static_cast<int64_t>(std::min<rlim_t>(limit.rlim_cur, INT64_MAX)) - position;
}

// Keeps SIGPIPE from the program while this thread writes to a pipe.
class NoPipeSignal {
 public:
  NoPipeSignal() {
    sigemptyset(&signal_);
    sigaddset(&signal_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signal_, &before_);
  }
  ~NoPipeSignal() {
    constexpr timespec kNow{};
    if (sigismember(&before_, SIGPIPE) == 0) ::sigtimedwait(&signal_, nullptr, &kNow);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  NoPipeSignal(const NoPipeSignal&) = delete;
  NoPipeSignal& operator=(const NoPipeSignal&) = delete;

 private:
  sigset_t signal_;
  sigset_t before_;
};

// These return 0, or errno's value. What is left of a block that a file took in part is not written, because it would
// stand behind the blocks of other threads.
int write_to_file(int descriptor, std::span<const uint8_t> bytes) {
  ssize_t count = 0;
  do {
    count = ::write(descriptor, bytes.data(), bytes.size());
  } while (count < 0 && errno == EINTR);
  if (count < 0) return errno;
  return static_cast<size_t>(count) == bytes.size() ? 0 : ENOSPC;
}

int write_to_pipe(int descriptor, std::span<const uint8_t> bytes) {
  const NoPipeSignal guard;
  while (!bytes.empty()) {
    pollfd writable = {descriptor, POLLOUT, 0};
    const int ready = ::poll(&writable, 1, kPipeTimeoutMs);
    if (ready == 0) return ETIMEDOUT;
    // A pipe that is writable takes so many bytes without waiting.
    const ssize_t count = ready < 0 ? -1 : ::write(descriptor, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF));
    if (count < 0 && errno != EINTR && errno != EAGAIN) return errno;
    bytes = bytes.subspan(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  }
  return 0;
}

}  // namespace

int open_capture(const std::string& name, std::string& problem) {
  constexpr std::string_view kDescriptors = "/dev/fd/";
  const std::string path = expand(name);
  int file = -1;
  const bool is_open = path.starts_with(kDescriptors);
  if (is_open) {
    int number = -1;
    std::from_chars(path.data() + kDescriptors.size(), path.data() + path.size(), number);
    file = ::fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  } else {
    file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600);
  }
  const bool lacks_reader = file < 0 && errno == ENXIO;
  problem = lacks_reader          ? "no process reads the pipe yet"
            : file < 0            ? std::strerror(errno)
            : ::isatty(file) != 0 ? "it is a terminal"
                                  : "";
  if (problem.empty() && !is_open) problem = take_over(file);
  if (problem.empty() || file < 0) return file;
  ::close(file);
  return -1;
}

// --- writing ---

CaptureWriter::CaptureWriter(int descriptor, std::string_view program, std::function<void(int error)> ended)
    : descriptor_(descriptor), is_file_(is_regular(descriptor)), room_(room_of(descriptor)), ended_(std::move(ended)) {
  Block header = begin_section_header();
  header.put_option(kApplication, program);
  write_block({{header.finish()}});
}

uint32_t CaptureWriter::add_link(const CaptureLink& link, Sharing sharing) {
  static const CaptureLink kOthers = {"others", "others"};
  const std::lock_guard lock(links_mutex_);
  const auto known = sharing == Sharing::kShared ? std::find(links_.begin(), links_.end(), link) : links_.end();
  if (known != links_.end()) return static_cast<uint32_t>(known - links_.begin());
  if (links_.size() == kMostLinks) return kMostLinks - 1;
  const CaptureLink& added = links_.emplace_back(links_.size() < kMostLinks - 1 ? link : kOthers);
  Block block(kInterfaceDescription);
  block.put(uint32_t{kLinkType});
  block.put(uint32_t{0});  // no limit of a packet's length
  block.put_option(kName, added.transport);
  block.put_option(kDescription, added.process);
  block.put_option(kTimeResolution, std::string_view(reinterpret_cast<const char*>(&kNanoseconds), 1));
  write_block({{block.finish()}});
  return static_cast<uint32_t>(links_.size() - 1);
}

void CaptureWriter::write(uint32_t link, Direction direction, uint8_t service, uint8_t client,
                          std::span<const uint8_t> message) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const uint64_t time = static_cast<uint64_t>(now.tv_sec) * kSecond + static_cast<uint64_t>(now.tv_nsec);
  const auto kept = message.first(std::min(message.size(), kMaxFrameLength - kFrameHeaderLength));
  const auto captured = static_cast<uint32_t>(kFrameHeaderLength + kept.size());
  const auto original = static_cast<uint32_t>(kFrameHeaderLength + message.size());
  const size_t padding = padding_of(captured);
  const uint32_t flags = direction == Direction::kFromModem ? kInbound : kOutbound;
  uint32_t tail[] = {kFlags | sizeof flags << 16, flags, kEndOfOptions, 0};
  uint32_t head[] = {kEnhancedPacket, 0,       link, static_cast<uint32_t>(time >> 32), static_cast<uint32_t>(time),
                     captured,        original};
  head[1] = tail[3] = static_cast<uint32_t>(sizeof head + captured + padding + sizeof tail);

  uint8_t front[sizeof head + kFrameHeaderLength];
  std::memcpy(front, head, sizeof head);
  store_frame_header(front + sizeof head, direction, service, client, kept.size());
  uint8_t back[3 + sizeof tail] = {};
  std::memcpy(back + padding, tail, sizeof tail);
  write_block({{front, kept, {back, padding + sizeof tail}}});
}

void CaptureWriter::write_block(const Parts& parts) {
  if (has_ended_.load(std::memory_order_relaxed)) return;
  size_t length = 0;
  for (const auto& part : parts) length += part.size();
  uint8_t small[1024];
  const std::unique_ptr<uint8_t[]> large(length > sizeof small ? new uint8_t[length] : nullptr);
  const std::span<uint8_t> block(large ? large.get() : small, length);
  auto at = block.begin();
  for (const auto& part : parts) at = std::copy(part.begin(), part.end(), at);
  if (is_file_) {
    const bool has_room = room_.fetch_sub(static_cast<int64_t>(length)) >= static_cast<int64_t>(length);
    return end(has_room ? write_to_file(descriptor_, block) : EFBIG);
  }
  const std::lock_guard lock(pipe_mutex_);
  if (!has_ended_) end(write_to_pipe(descriptor_, block));
}

void CaptureWriter::end(int error) {
  if (error != 0 && !has_ended_.exchange(true)) ended_(error);
}

// --- reading ---

CaptureReader::CaptureReader(int descriptor) : descriptor_(descriptor), buffer_(new uint8_t[kBufferLength]) {}

uint16_t CaptureReader::u16(const uint8_t* at) const {
  return is_swapped_ ? static_cast<uint16_t>(at[0] << 8 | at[1]) : load_u16(at);
}

uint32_t CaptureReader::u32(const uint8_t* at) const {
  uint32_t number = 0;
  std::memcpy(&number, at, sizeof number);
  return is_swapped_ ? __builtin_bswap32(number) : number;
}

// Reads until the buffer has so many bytes. False at the end of the file, also where it cannot be read.
bool CaptureReader::fill(size_t length) {
  if (begin_ + length > kBufferLength) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    end_ -= std::exchange(begin_, 0);
  }
  while (end_ - begin_ < length) {
    const ssize_t count = ::read(descriptor_, buffer_.get() + end_, kBufferLength - end_);
    if (count < 0 && errno == EAGAIN) {
      pollfd readable = {descriptor_, POLLIN, 0};
      ::poll(&readable, 1, -1);
    }
    if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) return false;
    end_ += static_cast<size_t>(std::max<ssize_t>(count, 0));
  }
  return true;
}

bool CaptureReader::skip(uint64_t length) {
  while (length > 0) {
    if (begin_ == end_) begin_ = end_ = 0;
    if (!fill(1)) return false;
    const auto step = static_cast<size_t>(std::min<uint64_t>(length, end_ - begin_));
    begin_ += step;
    length -= step;
  }
  return true;
}

CaptureReader::Status CaptureReader::next(CapturedMessage& message) {
  if (status_ == Status::kMessage) status_ = find_message(message);
  return status_;
}

const CaptureLink& CaptureReader::link(uint32_t number) const {
  static const CaptureLink kUnknown;
  return number < links_.size() ? links_[number].names : kUnknown;
}

CaptureReader::Status CaptureReader::find_message(CapturedMessage& message) {
  for (;;) {
    begin_ += block_;
    position_ += std::exchange(block_, 0);
    const bool has_head = fill(kLeastBlock);
    const bool is_first = position_ == 0;
    if (!has_head) return is_first ? Status::kNoCapture : begin_ == end_ ? Status::kEnd : Status::kCut;
    const uint8_t* const head = &buffer_[begin_];
    const uint32_t type = u32(head);
    if (type == kSectionHeader) {
      uint32_t order = 0;
      std::memcpy(&order, head + 8, sizeof order);
      is_swapped_ = order == kByteOrderSwapped;
      if (!is_swapped_ && order != kByteOrder) return is_first ? Status::kNoCapture : Status::kBroken;
      if (links_.size() > kMostLinks / 2) links_.clear();
      first_link_ = links_.size();
    } else if (is_first) {
      return Status::kNoCapture;
    }
    const uint32_t length = u32(head + 4);
    if (length < kLeastBlock || length % 4 != 0) return Status::kBroken;
    if (length > kBufferLength) {
      if (type == kInterfaceDescription) add_link({});
      if (type == kEnhancedPacket) ++skipped_;
      if (!skip(length)) return Status::kCut;
      position_ += length;
      continue;
    }
    if (!fill(length)) return Status::kCut;
    const std::span<const uint8_t> block(&buffer_[begin_], length);
    if (u32(&block[length - sizeof length]) != length) return Status::kBroken;
    block_ = length;
    if (type == kSectionHeader) {
      constexpr uint16_t kVersion = 1;
      if (length < kSectionLength || u16(&block[12]) != kVersion) return Status::kBroken;
    } else if (type == kInterfaceDescription) {
      add_link(block);
    } else if (type == kEnhancedPacket) {
      if (take_packet(block, message)) return Status::kMessage;
      ++skipped_;
    }
  }
}

void CaptureReader::add_link(std::span<const uint8_t> block) {
  if (links_.size() == kMostLinks) return;
  Link& link = links_.emplace_back();
  if (block.size() < kInterfaceLength) return;
  link.is_qmi = u16(&block[8]) == kLinkType;
  constexpr size_t kHeadLength = 4;
  auto options = block.subspan(16, block.size() - kInterfaceLength);
  while (options.size() >= kHeadLength) {
    const uint16_t code = u16(&options[0]);
    const size_t length = u16(&options[2]);
    options = options.subspan(kHeadLength);
    if (code == kEndOfOptions || length > options.size()) return;
    const auto* const text = reinterpret_cast<const char*>(options.data());
    if (code == kName) link.names.transport.assign(text, std::min(length, kLongestText));
    if (code == kDescription) link.names.process.assign(text, std::min(length, kLongestText));
    if (code == kTimeResolution && length == 1) {
      const unsigned exponent = options[0] & 0x7F;
      const bool is_binary = options[0] > exponent;
      link.is_qmi &= exponent <= (is_binary ? 63 : 19);
      link.ticks_a_second = 1;
      for (unsigned i = 0; i < exponent && link.is_qmi; ++i) link.ticks_a_second *= is_binary ? 2 : 10;
    }
    if (code == kTimeOffset && length == sizeof(uint64_t)) {
      const size_t high = is_swapped_ ? 0 : 4;
      link.offset_seconds = uint64_t{u32(&options[high])} << 32 | u32(&options[4 - high]);
    }
    options = options.subspan(std::min(length + padding_of(length), options.size()));
  }
}

bool CaptureReader::take_packet(std::span<const uint8_t> block, CapturedMessage& message) const {
  if (block.size() < kPacketLength) return false;
  const uint64_t number = first_link_ + uint64_t{u32(&block[8])};
  const size_t captured = u32(&block[20]);
  if (captured > block.size() - kPacketLength || captured < kFrameHeaderLength) return false;
  if (number >= links_.size() || !links_[number].is_qmi) return false;
  const Link& link = links_[number];

  const auto packet = block.subspan(28, captured);
  constexpr size_t kDirectionAt = 3;
  message.direction = packet[kDirectionAt] == 0 ? Direction::kToModem : Direction::kFromModem;
  message.is_cut = u32(&block[24]) > captured;
  const Front front = read_front(packet, message.direction);
  if (front.state == Front::State::kBroken || (front.state == Front::State::kIncomplete && !message.is_cut))
    return false;
  if (front.state == Front::State::kComplete && front.length != captured) return false;
  message.frame = {packet[4], packet[5], packet.subspan(kFrameHeaderLength)};
  message.link = static_cast<uint32_t>(number);

  const uint64_t time = uint64_t{u32(&block[12])} << 32 | u32(&block[16]);
  const auto rest = static_cast<double>(time % link.ticks_a_second) / static_cast<double>(link.ticks_a_second);
  constexpr uint64_t kMostSeconds = INT64_MAX / kSecond - 1;
  const uint64_t seconds = std::min(time / link.ticks_a_second + link.offset_seconds, kMostSeconds);
  message.time_ns = static_cast<int64_t>(seconds * kSecond + static_cast<uint64_t>(std::llround(rest * kSecond)));
  return true;
}

}  // namespace pelmar::qmi
