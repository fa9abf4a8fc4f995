#include "io/waiting_output.h"

#include "io/stream.h"

namespace pelmar::sim {

void WaitingOutput::Share::set(size_t bytes) {
  if (bytes_ == 0 && bytes != 0) place_ = all_.waiting_.insert(all_.waiting_.end(), &stream_);
  if (bytes_ != 0 && bytes == 0) all_.waiting_.erase(place_);
  all_.total_ = all_.total_ - bytes_ + bytes;
  bytes_ = bytes;
  while (all_.total_ > all_.limit_) all_.drop_longest_waiting();
}

void WaitingOutput::Share::note_progress() {
  if (bytes_ != 0) all_.waiting_.splice(all_.waiting_.end(), all_.waiting_, place_);
}

bool WaitingOutput::drop_longest_waiting() {
  if (waiting_.empty()) return false;
  waiting_.front()->close("has read nothing for the longest time, and the output for all has reached its bound");
  return true;
}

}  // namespace pelmar::sim
