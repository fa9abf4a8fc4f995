// One peer's byte stream on the event loop, with bounded buffers on both sides.
//
// A stream never blocks: what the peer does not take waits here, and a peer that lets more than the bound pile up is
// dropped; so is one for which there is no memory. A Reader gets the bytes received so far and returns how many of them
// it has used up; a peer that fills the input buffer without forming anything usable is dropped too.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "io/event_loop.h"
#include "io/waiting_output.h"
#include "unique_fd.h"

namespace pelmar::sim {

class Stream final : public EventLoop::Watcher {
 public:
  class Reader {
   public:
    // Returns how many bytes of the front were used up. May send and may close the stream.
    virtual size_t on_bytes(std::span<const uint8_t> bytes) = 0;
    // All that was sent has been taken by the kernel again.
    virtual void on_drained() {}
    // The last call. The stream's owner destroys it in a posted task, not here.
    virtual void on_closed(std::string_view reason) = 0;

   protected:
    ~Reader() = default;
  };

  static constexpr std::string_view kClosedByPeer = "closed by the peer";

  struct Bounds {
    size_t input;   // the largest unit that the reader needs to see whole
    size_t output;  // bytes that may wait for a slow peer
  };

  // all: what this and other streams hold is bounded together.
  Stream(EventLoop& loop, WaitingOutput& all, UniqueFd fd, Reader& reader, Bounds bounds);
  ~Stream() override;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // Sends all of the bytes, now or when the peer takes them. May close the stream.
  void send(std::span<const uint8_t> bytes);
  void close(std::string_view reason);

  bool is_open() const { return static_cast<bool>(fd_); }
  bool is_drained() const { return waiting_.empty(); }
  // 0 where it is not known.
  pid_t process_at_other_end() const;

  void on_ready(uint32_t events) override;

 private:
  void receive();
  void hand_over();
  void flush();
  void keep(std::span<const uint8_t> bytes);
  void forget_output();

  EventLoop& loop_;
  UniqueFd fd_;
  Reader& reader_;
  const Bounds bounds_;
  std::unique_ptr<uint8_t[]> input_;
  size_t received_ = 0;
  std::vector<uint8_t> waiting_;  // output that the kernel has not taken yet, from taken_ on
  size_t taken_ = 0;
  WaitingOutput::Share share_;
};

}  // namespace pelmar::sim
