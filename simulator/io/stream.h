// One peer's byte stream on the event loop, with bounded buffers on both sides.
//
// A stream never blocks: output that the peer does not read waits here. A stream is closed when more than its bound
// waits, when there is no memory for it, and when the peer fills the input buffer without completing a message. All
// streams share a WaitingOutput, which bounds what they hold together.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "io/event_loop.h"
#include "unique_fd.h"

namespace pelmar::sim {

class Stream;

// The output that all streams hold for peers that do not read.
//
// Beyond the limit, streams are closed until the rest fits, first the one whose peer has read nothing for the longest
// time. A peer that reads, however slowly, is thus dropped after all those that do not.
class WaitingOutput {
 public:
  // Closes the stream whose peer has read nothing for the longest time. False where nothing waits.
  bool drop_longest_waiting();

 private:
  friend class Stream;

  static constexpr size_t kLimit = size_t{16} << 20;

  size_t total_ = 0;
  std::list<Stream*> waiting_;  // in the order in which their peers have last read, or their output began to wait
};

class Stream final : public EventLoop::Watcher {
 public:
  class Reader {
   public:
    // Gets all bytes that are not used up yet; returns how many of them, from the first on, it has used up. May send
    // and may close the stream.
    virtual size_t on_bytes(std::span<const uint8_t> bytes) = 0;
    // No output waits any more.
    virtual void on_drained() {}
    // The last call. The stream's owner destroys it in a posted task, not here.
    virtual void on_closed(std::string_view reason) = 0;

   protected:
    ~Reader() = default;
  };

  static constexpr std::string_view kClosedByPeer = "closed by the peer";

  struct Bounds {
    size_t input;   // the largest message that the reader needs to see whole
    size_t output;  // bytes that may wait for a slow peer
  };

  Stream(EventLoop& loop, WaitingOutput& all, UniqueFd fd, Reader& reader, Bounds bounds);
  ~Stream() override;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // Sends all of the bytes, now or when the peer reads. May close the stream.
  void send(std::span<const uint8_t> bytes);
  void close(std::string_view reason);

  bool is_open() const { return static_cast<bool>(fd_); }
  bool is_drained() const { return waiting_.empty(); }
  // 0 where it is not known.
  pid_t process_at_other_end() const;

  void on_ready(uint32_t events) override;

 private:
  void receive();
  void flush();
  void keep(std::span<const uint8_t> bytes);
  void forget_output();
  void set_share(size_t bytes);

  EventLoop& loop_;
  WaitingOutput& all_;
  UniqueFd fd_;
  Reader& reader_;
  const Bounds bounds_;
  std::unique_ptr<uint8_t[]> input_;
  size_t received_ = 0;
  std::vector<uint8_t> waiting_;  // output that the kernel has not taken yet, from taken_ on
  size_t taken_ = 0;
  size_t share_ = 0;                    // the bytes of all_ that are this stream's
  std::list<Stream*>::iterator place_;  // in all_, while share_ is not 0
};

}  // namespace pelmar::sim
