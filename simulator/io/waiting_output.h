// What all streams hold for peers that do not read, bounded in total.
//
// Beyond the bound the stream whose peer has taken nothing for the longest time is closed, and the next one, until the
// rest fits. A peer that reads, however slowly, is thus dropped after all those that do not.
#pragma once

#include <cstddef>
#include <list>

namespace pelmar::sim {

class Stream;

class WaitingOutput {
 public:
  static constexpr size_t kDefaultLimit = size_t{16} << 20;

  explicit WaitingOutput(size_t limit = kDefaultLimit) : limit_(limit) {}

  // A stream's part. Nothing waits in a fresh one.
  class Share {
   public:
    Share(WaitingOutput& all, Stream& stream) : all_(all), stream_(stream) {}
    ~Share() { set(0); }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

    // The bytes that the stream now holds; 0 for none. May close streams, also this one.
    void set(size_t bytes);
    // The peer has taken some of them.
    void note_progress();

   private:
    WaitingOutput& all_;
    Stream& stream_;
    size_t bytes_ = 0;
    std::list<Stream*>::iterator place_;  // while bytes_ is not 0
  };

  // Closes the stream whose peer has taken nothing for the longest time. False where nothing waits.
  bool drop_longest_waiting();

 private:
  const size_t limit_;
  size_t total_ = 0;
  std::list<Stream*> waiting_;  // by the time at which the peer took something last, or the waiting began
};

}  // namespace pelmar::sim
