// A value that several threads read and change, and wait for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace pelmar::platform {

template <typename T>
class SharedValue {
 public:
  SharedValue() = default;
  explicit SharedValue(T value) : value_(std::move(value)) {}

  T get() {
    return change([](const T& value) { return value; });
  }
  void set(T value) {
    change([&](T& own) { own = std::move(value); });
  }

  // Returns what `function` does, which runs alone.
  template <typename Function>
  auto change(const Function& function) {
    const std::lock_guard lock(mutex_);
    changed_.notify_all();
    return function(value_);
  }

  // Waits until the condition holds, a minute at most; returns whether it does.
  template <typename Condition>
  bool comes_to(const Condition& condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return condition(value_); });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  T value_{};
};

}  // namespace pelmar::platform
