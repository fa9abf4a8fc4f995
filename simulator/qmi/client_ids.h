// The client ids of one service: who holds which. Ten at a time, unique over all connections.
//
// A freed id is not given out again before all the others had their turn, so that a late message for it finds nobody.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace pelmar::sim {

class Connection;

class ClientIds {
 public:
  static constexpr size_t kLimit = 10;
  static constexpr uint8_t kHighest = 0xFE;  // 0xFF addresses all clients

  std::optional<uint8_t> allocate(Connection& owner) {
    if (count_ == kLimit) return std::nullopt;
    do {
      last_ = last_ == kHighest ? 1 : static_cast<uint8_t>(last_ + 1);
    } while (owners_[last_] != nullptr);
    owners_[last_] = &owner;
    ++count_;
    return last_;
  }

  void release(uint8_t id) {
    if (owners_[id] == nullptr) return;
    owners_[id] = nullptr;
    --count_;
  }

  // Null for an id that nobody holds.
  Connection* owner(uint8_t id) const { return owners_[id]; }
  size_t count() const { return count_; }

  // Calls f(id, owner); f may release ids.
  template <typename F>
  void for_each(F f) const {
    for (unsigned id = 1; id <= kHighest; ++id) {
      if (owners_[id] != nullptr) f(static_cast<uint8_t>(id), *owners_[id]);
    }
  }

 private:
  std::array<Connection*, 256> owners_{};
  size_t count_ = 0;
  uint8_t last_ = 0;
};

}  // namespace pelmar::sim
