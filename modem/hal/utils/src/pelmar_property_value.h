// A property's value in a buffer of its maximum size, values that are kept, and values as numbers.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "pelmar_property.h"
#include "pelmar_thread.h"

namespace pelmar {

using PropertyValue = char[PELMAR_PROPERTY_BUFFER_BYTES];

// A value that the process reads once and keeps. The first thread reads it while the others wait, so that no thread
// sees a part of the text.
class KeptProperty {
 public:
  constexpr KeptProperty(const char* name, const char* default_value) : name_(name), default_(default_value) {}

  const char* value() {
    if (!read_.load(std::memory_order_acquire)) {
      const std::lock_guard lock(reading_);
      if (!read_.load(std::memory_order_relaxed)) {
        pelmar_get_property_value(name_, value_, default_);
        read_.store(true, std::memory_order_release);
      }
    }
    return value_;
  }

 private:
  const char* name_;
  const char* default_;
  std::atomic<bool> read_{false};
  Lock reading_;
  PropertyValue value_{};
};

// Read and write decimal integers, with the exported functions.
int32_t read_int_property(const char* name, int32_t default_value);
void write_int_property(const char* name, int32_t value);

}  // namespace pelmar
