// How the scripted platform keeps what it was told and asked: objects that are never destroyed, since detached threads
// of the library may outlive main(), and a lock beside each group of them.
#pragma once

#include <mutex>

namespace scripted {

// Turns into an object of any type, never to be destroyed.
inline constexpr struct {
  template <typename T>
  operator T&() const {
    return *new T;
  }
} kNewObject;

using Guard = std::lock_guard<std::mutex>;

}  // namespace scripted
