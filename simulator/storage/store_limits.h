// What bounds every store of the modem.
#pragma once

#include <cstddef>

namespace pelmar::sim {

inline constexpr size_t kMaxStoredBytes = 256;

// How many more entries the modem has room for, over all stores.
class Room {
 public:
  explicit Room(size_t entries) : left_(entries) {}
  bool is_full() const { return left_ == 0; }
  void take() { left_ -= left_ > 0 ? 1 : 0; }
  void give_back() { ++left_; }

 private:
  size_t left_;
};

}  // namespace pelmar::sim
