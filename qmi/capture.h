// Captures: files with the QMI messages of one or more links, in the form that packet analysers read (pcapng).
//
//   section header         one for each program that wrote to the file. Options: a comment that marks the file as a
//                          capture of QMI messages, and the program's name and version
//   interface description  one for each link: link type 147 (LINKTYPE_USER0), times in nanoseconds. Options: the
//                          modem's address as the variable PELMAR_MODEM takes it ("qrtr:1", "/dev/cdc-wdm0", "@name"),
//                          and the client's process as "NAME[PID]"
//   enhanced packet        one for each message, as a QMUX frame (qmux.h). Option: the direction; inbound is from the
//                          modem
//
// A link of QMUX is a socket or a device, which several clients share. Over QRTR, which has no frames, each connection
// is a link of its own; the frame's service and client are the low bytes of the service's number and of the client's
// port. Every block is written at once at the end of the file, so that threads need no lock and the file is readable
// after the writer was killed, except for its last block.
//
// The bytes that are read come from a file and may be anything. All memory is bounded.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qmux.h"

namespace pelmar::qmi {

struct CaptureLink {
  std::string transport;  // the modem's address
  std::string process;    // "NAME[PID]"

  bool operator==(const CaptureLink&) const = default;
};

// Opens a file for a CaptureWriter and returns its descriptor, or -1 with the problem. In the name, %p stands for the
// process id and %% for a percent sign; /dev/fd/N is the open descriptor N.
//
// The messages of an earlier capture are lost. A file or FIFO that another process writes, and a file that is no
// capture of QMI messages, stay as they are. A new file is readable for its owner only, because messages may hold
// secrets.
int open_capture(const std::string& name, std::string& problem);

// Any number of threads may use a writer.
class CaptureWriter {
 public:
  // Writes a section header. `program` is its name and version. The descriptor is not closed. `ended` is called once,
  // if a write fails, with errno's value; nothing more is written then.
  CaptureWriter(int descriptor, std::string_view program, std::function<void(int error)> ended);

  // Returns the number of the link. kShared: that of an earlier link with the same description, if there is one. After
  // 16,383 links all further ones share one link, whose transport and process are "others".
  enum class Sharing { kShared, kOwn };
  uint32_t add_link(const CaptureLink& link, Sharing sharing);

  // Writes a message with the present time. A file takes it without waiting for other threads. A pipe takes messages
  // one by one; if it takes none for some seconds, the write has failed. A write fails with EFBIG if the file would
  // exceed RLIMIT_FSIZE as it was when the writer was created. If the limit was lowered since, or something else
  // writes the file, the signal SIGXFSZ may come instead, which ends a program that does not ignore it.
  void write(uint32_t link, Direction direction, uint8_t service, uint8_t client, std::span<const uint8_t> message);

 private:
  using Parts = std::array<std::span<const uint8_t>, 3>;

  void write_block(const Parts& parts);
  void end(int error);

  const int descriptor_;
  const bool is_file_;
  std::atomic<int64_t> room_;  // the bytes up to the limit of a file's size; negative after it was exceeded
  const std::function<void(int error)> ended_;
  std::atomic<bool> has_ended_{false};
  std::mutex links_mutex_;
  std::vector<CaptureLink> links_;
  std::mutex pipe_mutex_;
};

struct CapturedMessage {
  int64_t time_ns = 0;  // since 1970, UTC; not negative, so that the difference of two times does not overflow
  Direction direction = Direction::kToModem;
  uint32_t link = 0;
  Frame frame{};        // valid until the next message is read
  bool is_cut = false;  // the capture does not have all of the message
};

// Reads captures of any writer, of both byte orders. Blocks and options of other kinds are skipped.
class CaptureReader {
 public:
  // kCut: the file ends within a block. kBroken: no block begins at position(). kNoCapture: the file does not begin as
  // a capture does. After any status but kMessage, there are no more messages.
  enum class Status { kMessage, kEnd, kCut, kBroken, kNoCapture };

  // Reads a file or a pipe, which it does not close.
  explicit CaptureReader(int descriptor);

  // Waits for the next message.
  Status next(CapturedMessage& message);

  // The link of a message. Links of different sections have different numbers, unless there are very many.
  const CaptureLink& link(uint32_t number) const;

  // The number of packets that were skipped because they are no QMI messages.
  uint64_t skipped() const { return skipped_; }

  // Where the current block begins in the file.
  uint64_t position() const { return position_; }

 private:
  struct Link {
    CaptureLink names = {};
    bool is_qmi = false;
    uint64_t ticks_a_second = 1'000'000;
    uint64_t offset_seconds = 0;
  };

  Status find_message(CapturedMessage& message);
  bool fill(size_t length);
  bool skip(uint64_t length);
  uint16_t u16(const uint8_t* at) const;
  uint32_t u32(const uint8_t* at) const;
  void add_link(std::span<const uint8_t> block);
  bool take_packet(std::span<const uint8_t> block, CapturedMessage& message) const;

  const int descriptor_;
  const std::unique_ptr<uint8_t[]> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  uint64_t position_ = 0;
  size_t block_ = 0;  // the length of the block that was returned last
  bool is_swapped_ = false;
  Status status_ = Status::kMessage;
  std::vector<Link> links_;
  size_t first_link_ = 0;  // of the current section
  uint64_t skipped_ = 0;
};

}  // namespace pelmar::qmi
